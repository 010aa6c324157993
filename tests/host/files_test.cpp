// Single files to and from the handset, and the packets that a saved set has.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>

#include "tests/host/links.h"

namespace {

std::string random_bytes(size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

std::string text_of_file(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class Files : public LinkTest {
  protected:
    std::string make_file(const std::string &name, const std::string &bytes) {
        const std::string path = dir.path + "/" + name;
        std::ofstream(path) << bytes;
        return path;
    }
    words entries() {
        words names;
        FILE *list = popen(("ls -A " + dir.path).c_str(), "r");
        char name[256];
        while (list != nullptr && fscanf(list, " %255[^\n]", name) == 1) {
            names.push_back(name);
        }
        pclose(list);
        return names;
    }

    temporary_dir dir;
};

TEST_P(Files, PushedAndPulledBackAreTheSame) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    for (size_t size : {size_t(0), size_t(1), size_t(57), size_t(58), size_t(1) << 20}) {
        const std::string bytes = random_bytes(size);
        const std::string local = make_file("it's a file", bytes);
        ASSERT_EQ(chmod(local.c_str(), 0751), 0);
        const host_result pushed = host({"push", local, "/data/local/tmp"});
        ASSERT_EQ(pushed.status, 0) << pushed.err;
        EXPECT_EQ(pushed.out.find("/data/local/tmp/it's a file: "), 0u) << pushed.out;
        EXPECT_EQ(desk_list(h, "/data/local/tmp"), words{"it's a file"});
        EXPECT_EQ(desk_file_text(h, "/data/local/tmp/it's a file"), bytes);
        struct stat st = {};
        ASSERT_TRUE(desk_stat(h, "/data/local/tmp/it's a file", &st));
        EXPECT_EQ(st.st_mode & 07777, 0751u);
        const host_result pulled = host({"pull", "/data/local/tmp/it's a file", dir.path + "/copy"});
        ASSERT_EQ(pulled.status, 0) << pulled.err;
        EXPECT_EQ(text_of_file(dir.path + "/copy"), bytes);
        EXPECT_EQ(entries(), (words{"copy", "it's a file"}));
    }
}

TEST_P(Files, WhatCannotBeWrittenThereIsSaid) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    const std::string local = make_file("file", random_bytes(1 << 20));
    const host_result no_directory = host({"push", local, "/no/such/file"});
    EXPECT_EQ(no_directory.status, 1);
    EXPECT_NE(no_directory.err.find("No such file or directory"), std::string::npos) << no_directory.err;
    const host_result device = host({"push", local, "/dev/null"});
    EXPECT_EQ(device.status, 1);
    EXPECT_NE(device.err.find("/dev/null is no file"), std::string::npos) << device.err;
    ASSERT_TRUE(desk_fill_data(h, 100000));
    const host_result full = host({"push", local, "/data/local/tmp/file"});
    EXPECT_EQ(full.status, 1);
    EXPECT_NE(full.err.find("No space left on device"), std::string::npos) << full.err;
    EXPECT_EQ(desk_list(h, "/data/local/tmp"), words{});
    EXPECT_EQ(host({"push", dir.path, "/data/local/tmp/"}).status, 1);
    EXPECT_EQ(host({"pull", "/data", dir.path}).status, 1);
    EXPECT_EQ(host({"pull", "/data/no-such", dir.path}).status, 1);
    EXPECT_EQ(entries(), words{"file"});
}

TEST_P(Files, APullThatWasBrokenOffGoesOn) {
    desk_options options = quiet_options();
    options.data_size = 128u << 20;
    ASSERT_NO_FATAL_FAILURE(boot_link(options));
    const std::string bytes = random_bytes(40 << 20);
    ASSERT_TRUE(desk_write_file(h, "/data/big", bytes));
    const std::string part = dir.path + "/.big.part";
    struct stat st = {};
    host_job job;
    host_start(inside({"pull", "/data/big", dir.path}), false, &job);
    ASSERT_TRUE(desk_until([&] { return stat(part.c_str(), &st) == 0 && st.st_size > (1 << 20); }, 60000));
    kill(job.pid, SIGKILL);
    host_finish(&job);
    ASSERT_EQ(stat(part.c_str(), &st), 0);
    ASSERT_LT(st.st_size, 40 << 20) << "it was over before it could be broken off";
    EXPECT_EQ(host({"pull", "/data/big", dir.path}).status, 0);
    EXPECT_TRUE(text_of_file(dir.path + "/big") == bytes);
    EXPECT_EQ(entries(), words{"big"});
    EXPECT_NE(desk_wait_log_part(h, "zr-qel-sa", "tail -c +" + std::to_string(st.st_size + 1)), 0u) << "it began anew";
}

TEST_P(Files, ProgressOnATerminal) {
    ASSERT_NO_FATAL_FAILURE(boot_link());
    words argv = inside({"push", make_file("big", random_bytes(8 << 20)), "/data/local/tmp/big"});
    argv.insert(argv.begin(), SA_HOST);
    host_terminal terminal;
    terminal_start(argv, &terminal);
    EXPECT_TRUE(terminal_expect(&terminal, "of 8.4 MB ("));
    EXPECT_TRUE(terminal_expect(&terminal, "pushed, size and checksum are right.\r\n", 60000));
    EXPECT_EQ(terminal_finish(&terminal), 0);
    terminal_end(&terminal);
}

// The handset has loopback traffic of its own: a refused connection is a packet there and one back.
TEST_P(Files, ASavedSetHasThePacketsOfTheMomentBefore) {
    ASSERT_NO_FATAL_FAILURE(boot_link(desk_options()));
    ASSERT_EQ(desk_shell(h, "busybox ifconfig lo 127.0.0.1 up").status, 0);
    ASSERT_TRUE(desk_until([&] { return desk_shell(h, "wc -l </proc/net/packet").output == "2\n"; }))
        << "tcpdump does not listen";
    desk_shell(h, "for i in 1 2 3 4 5;do nc 127.0.0.1 9 </dev/null;done");
    const host_result saved = host({"save-log", "--fetch", dir.path});
    ASSERT_EQ(saved.status, 0) << saved.err;
    const words sets = entries();
    ASSERT_EQ(sets.size(), 1u);
    FILE *packets = popen(
        ("tcpdump -n -r " + dir.path + "/" + sets[0] + "/log/ipdata.pcap0 2>/dev/null | grep -c '\\.9[ :]'").c_str(),
        "r");
    int count = 0;
    EXPECT_EQ(fscanf(packets, "%d", &count), 1);
    pclose(packets);
    EXPECT_GE(count, 10);
}

OVER_EVERY_LINK(Files);

}  // namespace
