// Fetching saved log sets: whole trees, checked, continued after a break, and never a half one under a set's name.
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "tests/host/support.h"

namespace {

const char kRoot[] = "/storage/real_sd/logs";

class Fetch : public HostTest {
  protected:
    // A set with a file of this many bytes that do not compress and directories around it.
    void make_set(const std::string &name, size_t size) {
        std::mt19937 random(static_cast<unsigned>(size));
        std::string bytes(size, '\0');
        for (char &byte : bytes) {
            byte = static_cast<char>(random());
        }
        const std::string set = std::string(kRoot) + "/" + name;
        ASSERT_TRUE(desk_make_dir(h, set + "/log/empty"));
        ASSERT_TRUE(desk_write_file(h, set + "/log/big file", bytes));
        ASSERT_TRUE(desk_write_file(h, set + "/ps.log", "PID\n"));
    }
    // Whether the copy is the set, file by file, but for what the copy tells of the handset's clocks.
    bool is_same(const std::string &name) {
        const std::string there = desk_host_path(h, std::string(kRoot) + "/" + name);
        return system(("diff -r -x handset.txt '" + there + "' '" + dir.path + "/" + name + "'").c_str()) == 0;
    }
    off_t part_size(const std::string &name) {
        struct stat st = {};
        return stat((dir.path + "/." + name + ".tar.part").c_str(), &st) == 0 ? st.st_size : -1;
    }
    words entries() {
        words names;
        FILE *list = popen(("ls -A " + dir.path).c_str(), "r");
        char name[256];
        while (list != nullptr && fscanf(list, "%255s", name) == 1) {
            names.push_back(name);
        }
        pclose(list);
        return names;
    }
    desk_options roomy() {
        desk_options options = quiet_options();
        options.sd_card_size = 256u << 20;
        return options;
    }

    temporary_dir dir;
};

TEST_F(Fetch, SavedAndFetchedInOneGo) {
    ASSERT_NO_FATAL_FAILURE(boot_host(desk_options()));
    host_result saved = host({"save-log", "--fetch", dir.path});
    ASSERT_EQ(saved.status, 0) << saved.err;
    std::vector<std::string> sets = desk_list(h, kRoot);
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_EQ(entries(), sets);
    EXPECT_TRUE(is_same(sets[0]));
    EXPECT_EQ(saved.out.compare(0, 3, "OK\n"), 0) << saved.out;
    EXPECT_NE(saved.out.find(dir.path + "/" + sets[0]), std::string::npos) << saved.out;
}

TEST_F(Fetch, TheNewestUnlessOneIsNamed) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    make_set("2026_01_02_03_04_05", 1000);
    make_set("2025_12_31_23_59_59", 70000);
    ASSERT_TRUE(desk_make_dir(h, std::string(kRoot) + "/zz"));
    EXPECT_EQ(host({"fetch", dir.path}).status, 0);
    EXPECT_EQ(entries(), words{"2026_01_02_03_04_05"});
    EXPECT_EQ(host({"fetch", "2025_12_31_23_59_59", dir.path}).status, 0);
    EXPECT_TRUE(is_same("2026_01_02_03_04_05"));
    EXPECT_TRUE(is_same("2025_12_31_23_59_59"));
    host_result again = host({"fetch", dir.path});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, dir.path + "/2026_01_02_03_04_05 is complete already.\n");
}

TEST_F(Fetch, RecordsTheClocksOfTheHandset) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    make_set("2026_01_02_03_04_05", 1000);
    ASSERT_EQ(desk_shell(h, "setprop persist.sys.timezone Europe/Berlin").status, 0);
    const time_t before = time(nullptr);
    ASSERT_EQ(host({"fetch", dir.path}).status, 0);
    FILE *file = fopen((dir.path + "/2026_01_02_03_04_05/handset.txt").c_str(), "re");
    ASSERT_NE(file, nullptr);
    struct tm utc = {};
    char ms[4] = "";
    char zone[8] = "";
    double uptime = 0;
    // "%3[0-9]Z": milliseconds, no more digits.
    EXPECT_EQ(fscanf(file, "clock=%d-%d-%dT%d:%d:%d.%3[0-9]Z uptime=%lf zone=Europe/Berlin %7s", &utc.tm_year,
                     &utc.tm_mon, &utc.tm_mday, &utc.tm_hour, &utc.tm_min, &utc.tm_sec, ms, &uptime, zone),
              9);
    fclose(file);
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    const time_t clock = timegm(&utc);
    EXPECT_GE(clock, before);
    EXPECT_LE(clock, time(nullptr));
    EXPECT_GT(uptime, 0);
    EXPECT_TRUE(zone[0] == '+' || zone[0] == '-') << zone;
}

TEST_F(Fetch, NothingToFetchIsSaid) {
    ASSERT_NO_FATAL_FAILURE(boot_host());
    host_result none = host({"fetch", dir.path});
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("no saved log set"), std::string::npos) << none.err;
    host_result unknown = host({"fetch", "2020_01_01_00_00_00", dir.path});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.err.find("no log set 2020_01_01_00_00_00"), std::string::npos) << unknown.err;
    EXPECT_EQ(host({"fetch", "x; rm -r y", dir.path}).status, 3);
    EXPECT_EQ(host({"fetch", "../etc", dir.path}).status, 3);
    EXPECT_EQ(entries(), words{});
    desk_set_sd_card(h, false);
    EXPECT_EQ(host({"save-log", "--fetch", dir.path}).status, 1);
}

TEST_F(Fetch, ABrokenOffFetchGoesOnWhereItStopped) {
    ASSERT_NO_FATAL_FAILURE(boot_host(roomy()));
    const std::string set = "2026_05_05_05_05_05";
    make_set(set, 60 << 20);
    host_job job;
    host_start(inside({"fetch", dir.path}), false, &job);
    ASSERT_TRUE(desk_until([&] { return part_size(set) > (1 << 20); }, 60000));
    kill(job.pid, SIGKILL);
    EXPECT_EQ(host_finish(&job).status, 128 + SIGKILL);
    const off_t had = part_size(set);
    ASSERT_GT(had, 0);
    ASSERT_LT(had, 60 << 20) << "it was over before it could be broken off";
    host_result rest = host({"fetch", dir.path});
    EXPECT_EQ(rest.status, 0) << rest.err;
    EXPECT_TRUE(is_same(set));
    EXPECT_EQ(entries(), words{set});
    EXPECT_NE(desk_wait_log_part(h, "zr-qel-sa", "tail -c +" + std::to_string(had + 1)), 0u) << "it began anew";
}

TEST_F(Fetch, ASetThatHasChangedIsFetchedAnew) {
    ASSERT_NO_FATAL_FAILURE(boot_host(roomy()));
    const std::string set = "2026_05_05_05_05_05";
    make_set(set, 40 << 20);
    host_job job;
    host_start(inside({"fetch", dir.path}), false, &job);
    ASSERT_TRUE(desk_until([&] { return part_size(set) > (1 << 20); }, 60000));
    kill(job.pid, SIGKILL);
    host_finish(&job);
    ASSERT_TRUE(desk_append_file(h, std::string(kRoot) + "/" + set + "/ps.log", "more\n"));
    EXPECT_EQ(host({"fetch", dir.path}).status, 0);
    EXPECT_TRUE(is_same(set));
}

TEST_F(Fetch, ACopyThatDiffersIsDropped) {
    ASSERT_NO_FATAL_FAILURE(boot_host(roomy()));
    const std::string set = "2026_05_05_05_05_05";
    make_set(set, 40 << 20);
    host_job job;
    host_start(inside({"fetch", dir.path}), false, &job);
    ASSERT_TRUE(desk_until([&] { return part_size(set) > (1 << 20); }, 60000));
    kill(job.pid, SIGKILL);
    host_finish(&job);
    FILE *part = fopen((dir.path + "/." + set + ".tar.part").c_str(), "r+");
    ASSERT_NE(part, nullptr);
    fseek(part, 5000, SEEK_SET);
    fputs("spoilt", part);
    fclose(part);
    host_result spoilt = host({"fetch", dir.path});
    EXPECT_EQ(spoilt.status, 1);
    EXPECT_NE(spoilt.err.find("differs"), std::string::npos) << spoilt.err;
    EXPECT_EQ(entries(), words{});
    EXPECT_EQ(host({"fetch", dir.path}).status, 0);
    EXPECT_TRUE(is_same(set));
}

TEST_F(Fetch, ProgressOnATerminal) {
    ASSERT_NO_FATAL_FAILURE(boot_host(roomy()));
    make_set("2026_05_05_05_05_05", 60 << 20);
    words argv = inside({"fetch", dir.path});
    argv.insert(argv.begin(), SA_HOST);
    host_terminal terminal;
    terminal_start(argv, &terminal);
    EXPECT_TRUE(terminal_expect(&terminal, "of 62.9 MB ("));
    EXPECT_TRUE(terminal_expect(&terminal, "B/s"));
    EXPECT_TRUE(terminal_expect(&terminal, "fetched, size and checksum are right.\r\n", 60000));
    EXPECT_EQ(terminal_finish(&terminal), 0);
    terminal_end(&terminal);
}

}  // namespace
