// Copying kernel messages: exact bytes, the wrap inside the file, and failing reads and writes.
#include <signal.h>
#include <time.h>

#include "tests/support/collectors.h"

static const char kFile[] = "/data/local/log/kmsg.log";
static const char kGrowing[] = "/dev/.desk/growing";
static const char kTrace[] = "/dev/.desk/trace";
static const size_t kStamp = sizeof("[2026-01-01 00:00:00]\n") - 1;

class KernelMessages : public CollectorTest {
  protected:
    // Boots with the kernel reader alone, its file limited to so many KB, and waits until it copies.
    void boot_with_size(const std::string &size, desk_options options = desk_options());
    // Boots without the agent, with an empty file kGrowing, binds `source` over /proc/kmsg, then starts the agent with
    // the reader on.
    void start_on(const std::string &source);
    // Mounts a FIFO that nobody uses over a file: it can be neither removed nor renamed.
    void put_fifo_over(const std::string &path);
    void feed(const std::string &record);
    // What stands behind the time stamp.
    std::string copied();
    bool wait_copied(const std::string &text);
};

void KernelMessages::boot_with_size(const std::string &size, desk_options options) {
    options.properties.push_back({kLogProperty, log_property({{3, "5," + size}})});
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "read_kernel_log_loop buf_a["), 0u);
}

void KernelMessages::start_on(const std::string &source) {
    desk_options options = with_log_property(log_property({{3, "5,5"}}));
    options.agent = false;
    options.files.push_back({kGrowing, "", "", 0600, 0, 0});
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    const desk_result bound = desk_shell(h, "/usr/bin/mount --bind " + source + " /proc/kmsg");
    ASSERT_EQ(bound.status, 0) << bound.errors;
    start_agent();
}

void KernelMessages::put_fifo_over(const std::string &path) {
    const desk_result mounted = desk_shell(h, "busybox mkfifo /data/fifo && (test -e " + path + " || touch " + path +
                                                  ") && /usr/bin/mount --bind /data/fifo " + path);
    ASSERT_EQ(mounted.status, 0) << mounted.errors;
}

void KernelMessages::feed(const std::string &record) {
    ASSERT_TRUE(desk_kmsg_feed(h, record)) << desk_error();
}

std::string KernelMessages::copied() {
    const std::string text = desk_file_text(h, kFile);
    return text.size() < kStamp ? "" : text.substr(kStamp);
}

bool KernelMessages::wait_copied(const std::string &text) {
    return desk_until([&] { return copied() == text; });
}

// A record of exactly so many bytes, its newline included.
static std::string record_of(size_t size, char fill) {
    return std::string(size - 1, fill) + "\n";
}

// ---- copying ----

TEST_F(KernelMessages, FollowATimeStampOfTheHandsetsZone) {
    desk_options options;
    options.timezone = "XYZ-5:30";
    const time_t before = time(nullptr) + 19800;
    ASSERT_NO_FATAL_FAILURE(boot_with_size("5", options));
    const time_t after = time(nullptr) + 19800;
    const std::string text = desk_file_text(h, kFile);
    std::vector<std::string> possible;
    for (time_t second = before; second <= after; second++) {
        struct tm parts;
        char line[64];
        gmtime_r(&second, &parts);
        strftime(line, sizeof(line), "[%Y-%m-%d %H:%M:%S]\n", &parts);
        possible.push_back(line);
    }
    EXPECT_EQ(count_lines(possible, text), 1) << text;
    EXPECT_EQ(count_lines(platform_lines(), "read_kernel_log_loop buf_a[" + text + "]"), 1);
}

TEST_F(KernelMessages, AreCopiedByteByByte) {
    ASSERT_NO_FATAL_FAILURE(boot_with_size("5"));
    std::string all;
    // Records around the size of one read, a record of many reads, bytes that are no text.
    for (const size_t size : {1u, 98u, 99u, 100u, 198u, 199u, 1000u}) {
        all += record_of(size, static_cast<char>('a' + size % 26));
        ASSERT_NO_FATAL_FAILURE(feed(record_of(size, static_cast<char>('a' + size % 26))));
    }
    const std::string odd = "<3>[    9.000000] one\x01 tab\t high\xff\n";
    ASSERT_NO_FATAL_FAILURE(feed(odd));
    EXPECT_TRUE(wait_copied(all + odd)) << copied();
}

TEST_F(KernelMessages, WithoutTheirLineEndAreCopiedAtOnce) {
    ASSERT_NO_FATAL_FAILURE(boot_with_size("5"));
    ASSERT_NO_FATAL_FAILURE(feed("<6>[    1.000000] half a "));
    EXPECT_TRUE(wait_copied("<6>[    1.000000] half a "));
    ASSERT_NO_FATAL_FAILURE(feed("line\n"));
    EXPECT_TRUE(wait_copied("<6>[    1.000000] half a line\n"));
}

// ---- the wrap ----

TEST_F(KernelMessages, ThatReachTheLimitStayAndTheNextOneStillFollows) {
    ASSERT_NO_FATAL_FAILURE(boot_with_size("1"));
    std::string all;
    for (int i = 0; i < 16; i++) {  // 1024 bytes: not beyond the limit
        all += record_of(64, static_cast<char>('A' + i));
        ASSERT_NO_FATAL_FAILURE(feed(record_of(64, static_cast<char>('A' + i))));
    }
    all += record_of(10, 'x');  // beyond, but written where it stands
    ASSERT_NO_FATAL_FAILURE(feed(record_of(10, 'x')));
    EXPECT_TRUE(wait_copied(all)) << copied();
}

TEST_F(KernelMessages, BeyondTheLimitOverwriteTheFileFromItsBeginning) {
    ASSERT_NO_FATAL_FAILURE(boot_with_size("1"));
    const std::string stamp = desk_file_text(h, kFile);
    std::string expected = stamp;
    for (int i = 0; i < 11; i++) {  // 11 * 99 = 1089
        expected += record_of(99, static_cast<char>('A' + i));
        ASSERT_NO_FATAL_FAILURE(feed(record_of(99, static_cast<char>('A' + i))));
    }
    ASSERT_TRUE(desk_until([&] { return desk_file_text(h, kFile) == expected; }));
    ASSERT_NO_FATAL_FAILURE(feed("<6>[    2.000000] over the stamp and a part of the first record\n"));
    expected.replace(0, 64, "<6>[    2.000000] over the stamp and a part of the first record\n");
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, kFile) == expected; })) << desk_file_text(h, kFile);
    EXPECT_EQ(expected.size(), kStamp + 1089) << "the older tail stays";
}

// The count begins anew with each wrap: 21 records of 99 bytes are one round of 11 and 10 of the next.
TEST_F(KernelMessages, WrapAgainAfterTheSameAmount) {
    ASSERT_NO_FATAL_FAILURE(boot_with_size("1"));
    std::string expected = desk_file_text(h, kFile);
    for (int i = 0; i < 11; i++) {
        expected += record_of(99, 'a');
        ASSERT_NO_FATAL_FAILURE(feed(record_of(99, 'a')));
    }
    for (int i = 0; i < 11; i++) {
        expected.replace(static_cast<size_t>(i) * 99, 99, record_of(99, 'b'));
        ASSERT_NO_FATAL_FAILURE(feed(record_of(99, 'b')));
    }
    expected.replace(0, 99, record_of(99, 'c'));
    ASSERT_NO_FATAL_FAILURE(feed(record_of(99, 'c')));
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, kFile) == expected; })) << desk_file_text(h, kFile);
}

// ---- files that fail ----

TEST_F(KernelMessages, ThatCannotBeOpenedEndTheReaderAlone) {
    ASSERT_NO_FATAL_FAILURE(start_on("/dev/socket/logdw"));  // a socket: nothing to open
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "read_kernel_log_loop open(/proc/kmsg) errno[6-No such device or address]"),
              0u);
    EXPECT_TRUE(in_order(file_lines(),
                         {"read_kernel_log_loop log_path[/data/local/log/kmsg.log]", "read_kernel_log_loop fd_r[-1]",
                          "read_kernel_log_loop open(/proc/kmsg) errno[6-No such device or address]"}));
    EXPECT_EQ(count_lines(file_lines(), "start_log_service All Log Service Start Success."), 1);
    EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
    EXPECT_FALSE(desk_exists(h, kFile));
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(KernelMessages, ThatCannotBeReadAreClosedBeforeTheReaderSaysThatItEnds) {
    desk_options options = with_log_property(log_property({{3, "5,5"}}));
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_EQ(desk_shell(h, "/usr/bin/mount --bind /proc/1/mem /proc/kmsg").status, 0);
    desk_program traced;
    traced.argv = {"/usr/bin/strace",      "-ff", "-qq", "-s", "200", "-o", kTrace, "-e", "trace=openat,close,sendmsg",
                   "/system/bin/zr-qel-sa"};
    desk_child tracer;
    ASSERT_TRUE(desk_start(h, traced, &tracer)) << desk_error();
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "exit thread"), 0u);
    pid_t reader = 0;
    for (const desk_log_entry &entry : desk_log(h, "zr-qel-sa")) {
        reader = entry.text == "exit thread" ? entry.tid : reader;
    }
    const std::string path = kTrace + ("." + std::to_string(reader));
    ASSERT_TRUE(desk_wait_text(h, path, "exit thread"));
    const std::string trace = desk_file_text(h, path);
    const size_t end = trace.find("exit thread");
    for (const std::string file : {"/proc/kmsg", kFile}) {
        const size_t opened = trace.rfind("openat(AT_FDCWD, \"" + file + "\"", end);
        ASSERT_NE(opened, std::string::npos) << file;
        const std::string number = std::to_string(atoi(trace.c_str() + trace.find(" = ", opened) + 3));
        EXPECT_LT(trace.find("close(" + number + ")", opened), end) << number << " of " << file << "\n" << trace;
    }
    EXPECT_TRUE(desk_kill(h, tracer.pid, SIGKILL));
}

TEST_F(KernelMessages, ThatCannotBeReadEndTheReaderWithItsDescriptors) {
    ASSERT_NO_FATAL_FAILURE(start_on("/proc/1/mem"));  // opens, and has nothing at its beginning
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "exit thread"), 0u) << "a read error is final";
    EXPECT_TRUE(in_order(platform_lines(), {"read_kernel_log_loop read errno[5-Input/output error]", "exit thread"}));
    EXPECT_EQ(count_lines(file_lines(), "read_kernel_log_loop read errno[5-Input/output error]"), 1);
    EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
    for (const std::string &open : descriptors(desk_agent_pid(h))) {
        EXPECT_EQ(open.find("kmsg"), std::string::npos) << open;
        EXPECT_EQ(open.find("mem"), std::string::npos) << open;
    }
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(KernelMessages, ThatPauseWithEmptyReadsGoOn) {
    ASSERT_NO_FATAL_FAILURE(start_on(kGrowing));  // a file ends, and then grows
    const std::string first("first\0\0\n", 8);
    ASSERT_TRUE(desk_append_file(h, kGrowing, first));
    EXPECT_TRUE(wait_copied(first));
    ASSERT_TRUE(desk_append_file(h, kGrowing, "second\n"));
    EXPECT_TRUE(wait_copied(first + "second\n"));
    EXPECT_EQ(rests(platform_lines(), "read_kernel_log_loop read errno").size(), 0u);
}

TEST_F(KernelMessages, WithoutAnOutputFileEndTheReader) {
    desk_options options;
    options.files.push_back({std::string(kFile) + "/in-the-way", "", "", 0600, 0, 0});
    options.properties.push_back({kLogProperty, log_property({{3, "1,5"}})});
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_NE(
        desk_wait_log(h, "zr-qel-sa", "read_kernel_log_loop open(/data/local/log/kmsg.log) errno[21-Is a directory]"),
        0u);
    EXPECT_TRUE(in_order(platform_lines(), {"sys call: remove() failed! errno = 39", "read_kernel_log_loop fd_w[-1]"}));
    EXPECT_EQ(count_lines(file_lines(), "read_kernel_log_loop open(/data/local/log/kmsg.log) errno[21-Is a directory]"),
              1);
    EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
    for (const std::string &open : descriptors(desk_agent_pid(h))) {
        EXPECT_EQ(open.find("kmsg"), std::string::npos) << open;
    }
}

// Opening a FIFO that has no reader would block the kernel reader.
TEST_F(KernelMessages, WithAFifoWithoutAReaderAsOutputEndTheReader) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(put_fifo_over(kFile));
    for (int round = 0; round < 3; round++) {
        ASSERT_EQ(command("+KERNEL_LOG=1"), kOk);
        ASSERT_TRUE(desk_until([&] {
            return count_lines(file_lines(),
                               "read_kernel_log_loop open(/data/local/log/kmsg.log) "
                               "errno[6-No such device or address]") == round + 1;
        }));
        EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
        ASSERT_EQ(command("+KERNEL_LOG=0"), kOk);
    }
    for (const std::string &open : descriptors(desk_agent_pid(h))) {
        EXPECT_EQ(open.find("kmsg"), std::string::npos) << open;
    }
}

TEST_F(KernelMessages, GoOnWhenOwnerAndModeCannotBeSet) {
    desk_options options;
    options.properties.push_back({kLogProperty, log_property({{3, "5,5"}})});
    options.agent = false;
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "chown", "1 /data/local/log/kmsg.log"));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "chmod", "30 /data/local/log/kmsg.log"));
    ASSERT_NO_FATAL_FAILURE(start_agent());
    ASSERT_NO_FATAL_FAILURE(feed("<6>[    1.000000] kept\n"));
    EXPECT_TRUE(wait_copied("<6>[    1.000000] kept\n"));
    EXPECT_TRUE(in_order(file_lines(),
                         {"read_kernel_log_loop chown(/data/local/log/kmsg.log) error[1-Operation not permitted]",
                          "read_kernel_log_loop chmod(/data/local/log/kmsg.log) error[30-Read-only file system]"}));
}

// A disk that fills up: what fits is kept, the rest is lost and said so, and copying goes on when there is room.
TEST_F(KernelMessages, AreLostOnAFullDiskAndCopiedAgainAfterwards) {
    ASSERT_NO_FATAL_FAILURE(boot_with_size("1000"));
    ASSERT_TRUE(desk_fill_data(h, 0)) << desk_error();
    std::string fitting;
    while (fitting.size() + 90 <= 4096 - kStamp) {  // what the file's only block takes
        fitting += record_of(90, 'f');
        ASSERT_NO_FATAL_FAILURE(feed(record_of(90, 'f')));
    }
    ASSERT_TRUE(desk_kmsg_drained(h));
    const size_t room = 4096 - kStamp - fitting.size();
    ASSERT_NO_FATAL_FAILURE(feed(record_of(90, 'p')));
    ASSERT_NO_FATAL_FAILURE(feed(record_of(90, 'l')));
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "read_kernel_log_loop write errno[28-No space left on device]"), 0u);
    EXPECT_TRUE(in_order(platform_lines(),
                         {"WARNING !", "read_kernel_log_loop read_len[90] != write_len[" + std::to_string(room) + "]",
                          "read_kernel_log_loop write errno[28-No space left on device]"}));
    ASSERT_TRUE(desk_remove(h, "/data/.fill"));
    ASSERT_NO_FATAL_FAILURE(feed(record_of(90, 'n')));
    EXPECT_TRUE(wait_copied(fitting + std::string(room, 'p') + record_of(90, 'n')));
}

TEST_F(KernelMessages, ReaderThatCannotStartIsReported) {
    desk_options options;
    options.properties.push_back({kLogProperty, log_property({{3, "5,5"}})});
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "pthread_create", EAGAIN));
    ASSERT_TRUE(desk_write_file(h, "/proc/sys/kernel/printk", "untouched\n"));
    const size_t before = platform_lines().size();
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    std::vector<std::string> lines = platform_lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(before));
    EXPECT_TRUE(
        in_order(lines, {"start_zr_log_service type_id[3] file_num_val[5] file_size_val[5]",
                         "cannot create kernel log thread.", "start_log_service Not All Log Service Start Success."}));
    EXPECT_EQ(desk_file_text(h, "/proc/sys/kernel/printk"), "untouched\n");
    heal_call(h, "pthread_create");
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_EQ(desk_file_text(h, "/proc/sys/kernel/printk"), "7 4 1 7\n");
}

// ---- a stop while the reader waits for a stream that nobody writes to ----

class SilentStream : public KernelMessages {
  protected:
    // Boots with this kernel collector and the FIFO in the stream's place, the agent not started yet.
    void boot_silent(const std::string &kernel_collector) {
        desk_options options = with_log_property(log_property({{3, kernel_collector}}));
        options.agent = false;
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
        ASSERT_NO_FATAL_FAILURE(put_fifo_over("/proc/kmsg"));
        ASSERT_NO_FATAL_FAILURE(start_agent());
        ASSERT_EQ(ask("AT\r"), kOk);
        agent = desk_agent_pid(h);
    }
    // Waits until so many readers have begun and wait for the stream.
    ::testing::AssertionResult readers_wait(int begun, int alive) {
        const bool is_so = desk_until([&] {
            return count_lines(file_lines(), "read_kernel_log_loop log_path[/data/local/log/kmsg.log]") == begun &&
                   threads(agent) == 2 + alive;
        });
        return is_so ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << threads(agent) << " threads";
    }
    // Waits until the agent has its two own threads, so many have said that they end, and nothing of a reader is open.
    ::testing::AssertionResult only_ended(int count) {
        if (!desk_until([&] { return threads(agent) == 2; })) {
            return ::testing::AssertionFailure() << threads(agent) << " threads";
        }
        settle();
        int ended = 0;
        for (const std::string &line : platform_lines("zr-qel-pub")) {
            ended += line.compare(0, 7, "thread ") == 0 && line.find(" will be end") != std::string::npos ? 1 : 0;
        }
        for (const std::string &open : descriptors(agent)) {
            if (open.find("kmsg") != std::string::npos || open.find("fifo") != std::string::npos) {
                return ::testing::AssertionFailure() << open;
            }
        }
        return ended == count ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << ended << " have ended";
    }

    pid_t agent = -1;
};

TEST_F(SilentStream, SwitchStopsTheReader) {
    ASSERT_NO_FATAL_FAILURE(boot_silent("0,0"));
    for (int round = 1; round <= 3; round++) {
        ASSERT_EQ(command("+KERNEL_LOG=1"), kOk);
        ASSERT_TRUE(readers_wait(round, 1));
        ASSERT_EQ(command("+KERNEL_LOG=0"), kOk);
        EXPECT_TRUE(only_ended(round));
    }
}

TEST_F(SilentStream, RestartOfCollectionStopsTheReader) {
    ASSERT_NO_FATAL_FAILURE(boot_silent("2,5"));
    for (int round = 1; round <= 3; round++) {
        ASSERT_TRUE(readers_wait(round, 1));
        ASSERT_EQ(command("+DELETE_LOG"), kOk);
    }
    ASSERT_TRUE(readers_wait(4, 1));
    ASSERT_EQ(desk_set_property(h, kLogProperty, log_property({})), 0);
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_TRUE(only_ended(4));
}
