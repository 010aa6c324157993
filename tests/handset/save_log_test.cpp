// +SAVE_LOG: the files on the card and their names, and other activity during the copy.
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include "tests/support/commands.h"

static const char kCardRoot[] = "/storage/real_sd/logs";

class SaveLog : public CommandTest {
  protected:
    // One of everything that a save copies.
    void put_everything();
    // What somebody types into the remote shell's listener gets this path of a terminal to talk on.
    std::string ask_for_shell(const std::string &command);
};

static std::string every_byte() {
    std::string bytes;
    for (int i = 0; i < 70000; i++) {
        bytes += static_cast<char>(i);
    }
    return bytes;
}

void SaveLog::put_everything() {
    const std::vector<std::pair<std::string, std::string>> files = {
        {"/data/rec_dump.txt", "recorded\n"},
        {"/data/play_out_dump.txt", every_byte()},
        {"/data/local/log/kmsg.log", "kernel\n"},
        {"/data/local/log/logcat.log", ""},
        {"/data/local/log/old/logcat.log.1", "older\n"},
        {"/data/local/log-modem/a.qmdl", every_byte()},
        {"/data/local/log-modem-1/b.qmdl", "b"},
        {"/data/local/log-modem-2/c d.qmdl", "c d"},
        {"/data/log/SystemLog/dmesg.log", "dmesg\n"},
        {"/data/log/SystemLog/apanic_console.1", "panic\n"},
        {"/data/anr/traces.txt", "traces\n"},
        {"/data/data/com.android.mms/databases/mms.db", std::string("\0\1\2", 3)},
        {"/data/data/com.android.providers.telephony/databases/telephony.db", "sim"},
        {"/data/tombstones/tombstone_00", "signal 11\n"},
        {"/proc/driver/codec", "00: 1234\n"},
    };
    desk_program mount;
    mount.argv = {"/usr/bin/mount", "-t", "tmpfs", "codec", "/proc/driver"};
    ASSERT_EQ(desk_run(h, mount).status, 0);
    for (const auto &file : files) {
        ASSERT_TRUE(desk_make_dir(h, file.first.substr(0, file.first.rfind('/'))));
        ASSERT_TRUE(desk_write_file(h, file.first, file.second));
    }
    ASSERT_TRUE(desk_make_dir(h, "/data/local/log/empty"));
}

TEST_F(SaveLog, CopiesEverythingFileByFile) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(put_everything());
    EXPECT_EQ(request("+SAVE_LOG"), kOk);

    std::map<std::string, std::string> expected;
    const auto add = [&](const std::string &source, const std::string &place) {
        expected[place] = "directory";
        for (const auto &entry : tree(source)) {
            expected[place + "/" + entry.first] = entry.second;
        }
    };
    add("/data/local/log", "log");
    add("/data/local/log-modem", "log-modem");
    add("/data/local/log-modem-1", "log-modem-1");
    add("/data/local/log-modem-2", "log-modem-2");
    add("/data/log", "data-log");
    add("/data/anr", "anr");
    add("/data/data/com.android.mms", "com.android.mms");
    expected["com.android.providers.telephony"] = "directory";
    add("/data/data/com.android.providers.telephony",
        "com.android.providers.telephony/com.android.providers.telephony");
    add("/data/tombstones", "tombstones");
    expected["rec_dump.txt"] = "recorded\n";
    expected["play_out_dump.txt"] = every_byte();
    expected["zr3360regs.log"] = "00: 1234\n";
    EXPECT_EQ(expected.size(), 31u);

    std::map<std::string, std::string> saved = tree(destination());
    const std::string diagnostic = saved["log/sa.log"];  // a snapshot: the file has grown since
    EXPECT_EQ(expected["log/sa.log"].compare(0, diagnostic.size(), diagnostic), 0);
    EXPECT_NE(diagnostic.find("do_sys_command cmd[busybox cp /data/local/log "), std::string::npos);
    expected["log/sa.log"] = diagnostic;
    const lines dumps = {"getprop.log", "ifconfig.log", "ls_tmp.log",   "lsmod.log",
                         "ps.log",      "route.log",    "bugreport.log"};
    std::map<std::string, std::string> dumped;
    for (const std::string &name : dumps) {
        ASSERT_EQ(saved.count(name), 1u) << name;
        dumped[name] = saved[name];
        saved.erase(name);
    }
    EXPECT_TRUE(saved == expected) << ::testing::PrintToString(saved);

    EXPECT_EQ(dumped["getprop.log"], run({"/system/bin/getprop"}).output);
    EXPECT_NE(dumped["ifconfig.log"].find("inet addr:127.0.0.1"), std::string::npos);
    EXPECT_EQ(dumped["ls_tmp.log"], "zr-qel-sa.pid\n");
    const std::string modules = run({"/system/bin/lsmod"}).output;  // their users come and go: the first line alone
    EXPECT_EQ(dumped["lsmod.log"].substr(0, dumped["lsmod.log"].find('\n')), modules.substr(0, modules.find('\n')));
    EXPECT_NE(dumped["ps.log"].find("zr-qel-sa\n"), std::string::npos);
    EXPECT_EQ(dumped["route.log"].compare(0, 24, "Kernel IP routing table\n"), 0);
    EXPECT_NE(dumped["bugreport.log"].find("== dumpstate: "), std::string::npos);
    EXPECT_EQ(desk_list(h, kCardRoot).size(), 1u);
}

TEST_F(SaveLog, TakesASnapshotOfWhatCollectorsAreWriting) {
    desk_options options;
    add_quick_programs(&options);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>before the save\n"));
    ASSERT_TRUE(desk_wait_text(h, "/data/local/log/kmsg.log", "<6>before the save\n"));
    ASSERT_EQ(run({"/system/bin/log", "-t", "Kitchen", "kettle"}).status, 0);
    ASSERT_TRUE(desk_wait_text(h, "/data/local/log/logcat.log", "Kitchen : kettle\n"));
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
    const std::string copy = desk_file_text(h, destination() + "/log/logcat.log");
    EXPECT_NE(copy.find("Kitchen : kettle\n"), std::string::npos);
    EXPECT_EQ(desk_file_text(h, "/data/local/log/logcat.log").compare(0, copy.size(), copy), 0);
    EXPECT_EQ(desk_file_text(h, destination() + "/log/kmsg.log"), desk_file_text(h, "/data/local/log/kmsg.log"));
    EXPECT_TRUE(desk_exists(h, destination() + "/log/ipdata.pcap0"));
}

// ---- the directory ----

static std::string name_of(time_t moment) {
    struct tm parts;
    char text[32];
    gmtime_r(&moment, &parts);
    strftime(text, sizeof(text), "%Y_%m_%d_%H_%M_%S", &parts);
    return std::string(kCardRoot) + "/" + text;
}

TEST_F(SaveLog, NamesItsDirectoryAfterTheLocalTime) {
    desk_options options = quiet_options();
    add_quick_programs(&options);
    options.timezone = "ODD-13:45";  // that far ahead of the meridian
    options.umask = 0;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const time_t offset = 13 * 3600 + 45 * 60;
    const std::string earliest = name_of(time(nullptr) + offset);
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
    EXPECT_GE(destination(), earliest);
    EXPECT_LE(destination(), name_of(time(nullptr) + offset));
    EXPECT_EQ(desk_owner(h, kCardRoot), "0777 0:0");
    EXPECT_EQ(desk_owner(h, destination()), "0777 0:0");
}

TEST_F(SaveLog, IgnoresItsArgument) {
    desk_options options = quiet_options();
    add_quick_programs(&options);
    options.prepare = record_shell;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    shell_lines();
    for (const std::string &text : lines{"+SAVE_LOG=\"x\"", "+save_log = 1", "+SAVE_LOGS \"%s%n\"; rm -r /data"}) {
        EXPECT_EQ(request(text), kOk) << text;
        EXPECT_EQ(shell_lines(), save_lines(destination(), {"/data/anr"})) << text;
    }
}

// ---- meanwhile ----

std::string SaveLog::ask_for_shell(const std::string &command) {
    const int listener = desk_open_tty(h, "/dev/ttysa1");
    if (listener < 0) {
        return "";
    }
    const std::string text = "shell:" + command;
    char bytes[64] = "";
    struct pollfd answer = {listener, POLLIN, 0};
    const bool is_sent = write(listener, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const bool is_answered = is_sent && poll(&answer, 1, 10000) == 1 && read(listener, bytes, sizeof(bytes) - 1) > 0 &&
                             write(listener, "ok", 2) == 2;
    close(listener);
    return is_answered ? bytes : "";
}

// On a device a bug report alone takes minutes: the channel waits for it, and nobody else does.
TEST_F(SaveLog, StallsNothingButTheChannel) {
    desk_options options = with_log_property(log_property({{3, "5,64"}}));
    add_quick_programs(&options);
    options.files.push_back(
        script("/system/bin/bugreport", "until [ -e /data/go ]; do sleep 0.02; done\nprint at last\n"));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    begin("AT SA+SAVE_LOG\r");
    ASSERT_TRUE(desk_until([&] { return desk_wait_log_part(h, "zr-qel-sa", "busybox route > ") != 0; }));
    send("AT\r");

    ASSERT_TRUE(desk_kmsg_feed(h, "<6>meanwhile\n"));
    EXPECT_TRUE(desk_wait_text(h, "/data/local/log/kmsg.log", "<6>meanwhile\n"));
    EXPECT_NE(ask_for_shell("echo meanwhile > /data/shell"), "");
    EXPECT_TRUE(desk_wait_text(h, "/data/shell", "meanwhile\n"));
    EXPECT_EQ(receive(200), "");

    ASSERT_TRUE(desk_write_file(h, "/data/go", ""));
    std::string answers = receive();
    if (answers == kOk) {  // else both have come at once
        answers += receive();
    }
    EXPECT_EQ(answers, std::string(kOk) + kOk);
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
    const lines saves = desk_list(h, kCardRoot);
    ASSERT_EQ(saves.size(), 1u);
    EXPECT_EQ(desk_file_text(h, kCardRoot + ("/" + saves[0]) + "/bugreport.log"), "at last\n");
}
