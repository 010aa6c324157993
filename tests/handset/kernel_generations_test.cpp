// Generations of the kernel-message file: which files a start of the reader keeps, moves and removes.
#include "tests/support/collectors.h"

static const char kFile[] = "/data/local/log/kmsg.log";

class KernelGenerations : public CollectorTest {
  protected:
    // Boots with this count; before, generation N of the file, the live one being 0, holds "was N\n".
    void boot_with(const std::string &count, const std::vector<int> &existing);
    // What the files hold now: "1: was 0, 2: was 1".
    std::string generations();
};

static std::string name_of(int generation) {
    return kFile + (generation == 0 ? "" : "." + std::to_string(generation));
}

void KernelGenerations::boot_with(const std::string &count, const std::vector<int> &existing) {
    desk_options options = with_log_property(log_property({{3, count + ",5"}}));
    for (const int generation : existing) {
        desk_file file;
        file.path = name_of(generation);
        file.text = "was " + std::to_string(generation) + "\n";
        file.mode = 0600;
        options.files.push_back(file);
    }
    ASSERT_NO_FATAL_FAILURE(boot(options));
    if (stoi(count) != 0) {
        ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "read_kernel_log_loop buf_a["), 0u);
    }
}

std::string KernelGenerations::generations() {
    std::string all;
    for (const std::string &name : desk_list(h, "/data/local/log")) {
        if (name.compare(0, 9, "kmsg.log.") == 0) {
            const std::string text = desk_file_text(h, "/data/local/log/" + name);
            all += (all.empty() ? "" : ", ") + name.substr(9) + ": " + text.substr(0, text.find('\n'));
        }
    }
    return all;
}

TEST_F(KernelGenerations, CountOfFiveKeepsFourBesideTheLiveFile) {
    ASSERT_NO_FATAL_FAILURE(boot_with("5", {0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(generations(), "1: was 0, 2: was 1, 3: was 2, 4: was 3, 5: was 5");
    EXPECT_EQ(desk_file_text(h, kFile).size(), strlen("[2026-01-01 00:00:00]\n"));
    EXPECT_TRUE(in_order(
        file_lines(),
        {"read_kernel_log_loop param[(nil)]",
         "update_zr_log_file log_file_org[/data/local/log/kmsg.log] file_num_val[5] file_size_val[5]",
         "update_zr_log_file log_file_old[/data/local/log/kmsg.log.4]",
         "update_zr_log_file [4] log_file_old[/data/local/log/kmsg.log.3] log_file_new[/data/local/log/kmsg.log.4]",
         "update_zr_log_file [3] log_file_old[/data/local/log/kmsg.log.2] log_file_new[/data/local/log/kmsg.log.3]",
         "update_zr_log_file [2] log_file_old[/data/local/log/kmsg.log.1] log_file_new[/data/local/log/kmsg.log.2]",
         "read_kernel_log_loop log_path[/data/local/log/kmsg.log]"}));
    EXPECT_EQ(rests(reports(), "FUNC-update_zr_log_file()").size(), 0u);
}

TEST_F(KernelGenerations, CountOfTwoKeepsOne) {
    ASSERT_NO_FATAL_FAILURE(boot_with("2", {0, 1, 2}));
    EXPECT_EQ(generations(), "1: was 0, 2: was 2");
    EXPECT_TRUE(in_order(file_lines(), {"update_zr_log_file log_file_old[/data/local/log/kmsg.log.1]",
                                        "read_kernel_log_loop log_path[/data/local/log/kmsg.log]"}));
    EXPECT_EQ(rests(file_lines(), "update_zr_log_file [").size(), 0u);
}

TEST_F(KernelGenerations, CountOfOneRemovesThePreviousFile) {
    ASSERT_NO_FATAL_FAILURE(boot_with("1", {0, 1, 2}));
    EXPECT_EQ(generations(), "1: was 1, 2: was 2");
    EXPECT_EQ(desk_file_text(h, kFile).compare(0, 1, "["), 0) << "a new file";
    EXPECT_EQ(rests(file_lines(), "update_zr_log_file log_file_old").size(), 0u);
}

TEST_F(KernelGenerations, CountOfOneWithNothingToRemoveSaysSo) {
    ASSERT_NO_FATAL_FAILURE(boot_with("1", {}));
    EXPECT_TRUE(in_order(platform_lines(),
                         {"update_zr_log_file log_file_org[/data/local/log/kmsg.log] file_num_val[1] file_size_val[5]",
                          "sys call: remove() failed! errno = 2"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-update_zr_log_file(), error_code=-1, errno=2"), 1);
}

TEST_F(KernelGenerations, CountOfZeroStartsNoReaderAndTouchesNothing) {
    ASSERT_NO_FATAL_FAILURE(boot_with("0", {0, 1}));
    EXPECT_EQ(generations(), "1: was 1");
    EXPECT_EQ(desk_file_text(h, kFile), "was 0\n");
    EXPECT_EQ(rests(platform_lines(), "read_kernel_log_loop").size(), 0u);
    EXPECT_EQ(desk_file_text(h, "/proc/sys/kernel/printk"), "3 3 1 3\n");
}

TEST_F(KernelGenerations, MissingOnesInTheMiddleDoNotStopTheRest) {
    ASSERT_NO_FATAL_FAILURE(boot_with("5", {0, 1, 3}));
    EXPECT_EQ(generations(), "1: was 0, 2: was 1, 4: was 3");
    EXPECT_TRUE(in_order(
        platform_lines(),
        {"update_zr_log_file log_file_old[/data/local/log/kmsg.log.4]", "sys call: remove() failed! errno = 2",
         "update_zr_log_file [4] log_file_old[/data/local/log/kmsg.log.3] log_file_new[/data/local/log/kmsg.log.4]",
         "update_zr_log_file [3] log_file_old[/data/local/log/kmsg.log.2] log_file_new[/data/local/log/kmsg.log.3]",
         "sys call: rename() failed! errno = 2",
         "update_zr_log_file [2] log_file_old[/data/local/log/kmsg.log.1] log_file_new[/data/local/log/kmsg.log.2]",
         "read_kernel_log_loop log_path[/data/local/log/kmsg.log]"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-update_zr_log_file(), error_code=-1, errno=2"), 2);
}

TEST_F(KernelGenerations, WithoutALiveFileTheOthersStillMove) {
    ASSERT_NO_FATAL_FAILURE(boot_with("3", {1, 2}));
    EXPECT_EQ(generations(), "2: was 1");
    EXPECT_EQ(count_lines(platform_lines(), "sys call: rename() failed! errno = 2"), 0)
        << "nobody asks whether the live file was there";
}

// As a number without a sign it is a large one, so there is a generation to keep; none but the live file moves.
TEST_F(KernelGenerations, NegativeCountMovesTheLiveFileAlone) {
    ASSERT_NO_FATAL_FAILURE(boot_with("-3", {0, 1, 2}));
    EXPECT_EQ(generations(), "1: was 0, 2: was 2");
    EXPECT_EQ(count_lines(file_lines(), "update_zr_log_file log_file_old[/data/local/log/kmsg.log.-4]"), 1);
    EXPECT_EQ(rests(file_lines(), "update_zr_log_file [").size(), 0u);
    EXPECT_EQ(ask("AT\r"), kOk);
}

// The least count that there is; one below it is no such number any more.
TEST_F(KernelGenerations, LeastCountMovesTheLiveFileAlone) {
    ASSERT_NO_FATAL_FAILURE(boot_with("-2147483648", {0, 1, 2}));
    EXPECT_EQ(generations(), "1: was 0, 2: was 2");
    EXPECT_EQ(rests(file_lines(), "update_zr_log_file [").size(), 0u);
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(KernelGenerations, CountBeyondAThousandKeepsThemAll) {
    ASSERT_NO_FATAL_FAILURE(boot_with("1502", {0, 1, 1000, 1499, 1500, 1501}));
    EXPECT_EQ(generations(), "1: was 0, 1001: was 1000, 1500: was 1499, 1501: was 1500, 2: was 1");
    EXPECT_TRUE(in_order(
        file_lines(),
        {"update_zr_log_file log_file_old[/data/local/log/kmsg.log.1501]",
         "update_zr_log_file [1501] log_file_old[/data/local/log/kmsg.log.1500] "
         "log_file_new[/data/local/log/kmsg.log.1501]",
         "update_zr_log_file [2] log_file_old[/data/local/log/kmsg.log.1] log_file_new[/data/local/log/kmsg.log.2]"}));
    EXPECT_EQ(rests(file_lines(), "update_zr_log_file [").size(), 1500u);
}

// The oldest one goes by its own name. No more than 100000 are moved, so that the start of the reader ends. There
// is no log daemon: with one, the log lines would take most of the time.
TEST_F(KernelGenerations, HugeCountEndsInTime) {
    desk_options options = with_log_property(log_property({{3, "2147483647,5"}}));
    options.agent = false;
    for (const int generation : {0, 1, 1500, 2147483646}) {
        options.files.push_back({name_of(generation), "was " + std::to_string(generation) + "\n", "", 0600, 0, 0});
    }
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_EQ(desk_service_stop(h, "logd"), 0);
    ASSERT_TRUE(desk_wait_service(h, "logd", "stopped"));
    ASSERT_EQ(desk_service_start(h, "zr-qel-sa"), 0);
    ASSERT_TRUE(desk_wait_text(h, kFile, "[", 60000)) << "a new file with its time stamp";
    EXPECT_EQ(generations(), "1: was 0, 1501: was 1500, 2: was 1");
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(KernelGenerations, FileOfTheLastLifeBecomesTheFirstGeneration) {
    ASSERT_NO_FATAL_FAILURE(boot_with("3", {}));
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>[    1.000000] first life\n"));
    ASSERT_TRUE(desk_wait_text(h, kFile, "first life\n"));
    const std::string first = desk_file_text(h, kFile);
    ASSERT_NO_FATAL_FAILURE(restart_agent());
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>[    2.000000] second life\n"));
    ASSERT_TRUE(desk_wait_text(h, kFile, "second life\n"));
    EXPECT_EQ(desk_file_text(h, name_of(1)), first);
    const std::string second = desk_file_text(h, kFile);
    ASSERT_NO_FATAL_FAILURE(restart_agent());
    ASSERT_TRUE(desk_wait_text(h, name_of(1), "second life\n"));
    EXPECT_EQ(desk_file_text(h, name_of(1)), second);
    EXPECT_EQ(desk_file_text(h, name_of(2)), first);
}

TEST_F(KernelGenerations, LiveFileIsHandedOver) {
    ASSERT_NO_FATAL_FAILURE(boot_with("2", {0}));
    EXPECT_EQ(desk_owner(h, kFile), "0644 2000:1007");
    EXPECT_EQ(desk_owner(h, name_of(1)), "0600 0:0") << "a moved file stays as it is";
}
