// `sa-host view` as text: what it shows of a set, in which order, at which times.
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/host/log_set.h"
#include "tests/support/sanitized.h"

namespace {

// 2026-01-02 02:00:00 UTC
const unsigned kTwo = 1767319200;

class View : public testing::Test {
  protected:
    void log(const std::string &name, const std::string &text) {
        set_write(set + "/log", name, text);
    }
    void clocks(const std::string &clock, const std::string &uptime, const std::string &zone) {
        set_write(set, "handset.txt", "clock=" + clock + "\nuptime=" + uptime + "\nzone=" + zone + "\n");
    }
    host_result view(words arguments = {}) {
        arguments.insert(arguments.begin(), {"view", set});
        return host_run(arguments);
    }
    temporary_dir dir;
    const std::string set = set_make(dir);
};

TEST_F(View, MergesAllSourcesByTime) {
    clocks("2026-01-02T02:10:00.000Z", "600.00", " +0100");  // booted at 03:00:00 local time
    log("logcat.log",
        "--------- beginning of main\n"
        "01-02 03:00:02.000001   100   101 D tag: first\n"
        "01-02 03:00:07.000000   100   101 E tag: last\n");
    log("logcat-events.log", "01-02 03:00:03.000000     5     6 I am_low_memory: 3\n");
    log("logcat-radio.log", "01-02 03:00:04.000000     5     6 W RILJ: x\n");
    log("sa.log", "[01-02 03:00:05.123]main pid[5]\n");
    log("kmsg.log", "[2026-01-02 03:00:01]\n<6>[    0.500000] Linux version\n<3>[    6.000001] usb 1-1: error\n");
    log("ipdata.pcap0", set_capture({{kTwo + 5, 500000}}));
    const host_result result = view();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "01-02 03:00:00.500000 kernel  <6>[    0.500000] Linux version\n"
              "01-02 03:00:02.000001 main    --------- beginning of main\n"
              "01-02 03:00:02.000001 main      100   101 D tag: first\n"
              "01-02 03:00:03.000000 events      5     6 I am_low_memory: 3\n"
              "01-02 03:00:04.000000 radio       5     6 W RILJ: x\n"
              "01-02 03:00:05.123    sa      main pid[5]\n"
              "01-02 03:00:05.500000 packets IP 10.0.0.1.1000 > 10.0.0.2.9: UDP, length 0\n"
              "01-02 03:00:06.000001 kernel  <3>[    6.000001] usb 1-1: error\n"
              "01-02 03:00:07.000000 main      100   101 E tag: last\n");
}

TEST_F(View, ReadsGenerationsOldestFirst) {
    log("logcat.log", "01-02 03:00:04.000000     1     1 D t: newest\n");
    log("logcat.log.01", "01-02 03:00:03.000000     1     1 D t: newer\n");
    log("logcat.log.10", "01-02 03:00:01.000000     1     1 D t: oldest\n");
    log("logcat.log.2", "01-02 03:00:02.000000     1     1 D t: older\n");
    log("logcat.log.bak", "01-02 03:00:02.000000     1     1 D t: not a generation\n");
    // tcpdump began with the first file again: the packets tell the order.
    log("ipdata.pcap0", set_capture({{kTwo + 9, 0}}));
    log("ipdata.pcap1", set_capture({{kTwo + 7, 0}, {kTwo + 8, 0}}));
    log("ipdata.pcap2", "");
    clocks("2026-01-02T02:10:00.000Z", "600.00", " +0100");
    EXPECT_EQ(view({"--grep", "newe|old|UDP"}).out,
              "01-02 03:00:01.000000 main        1     1 D t: oldest\n"
              "01-02 03:00:02.000000 main        1     1 D t: older\n"
              "01-02 03:00:03.000000 main        1     1 D t: newer\n"
              "01-02 03:00:04.000000 main        1     1 D t: newest\n"
              "01-02 03:00:07.000000 packets IP 10.0.0.1.1000 > 10.0.0.2.9: UDP, length 0\n"
              "01-02 03:00:08.000000 packets IP 10.0.0.1.1000 > 10.0.0.2.9: UDP, length 0\n"
              "01-02 03:00:09.000000 packets IP 10.0.0.1.1000 > 10.0.0.2.9: UDP, length 0\n");
}

TEST_F(View, ReadsAnOverwrittenKernelFileFromItsOldestRecord) {
    clocks("2026-01-02T02:10:00.000Z", "600.00", " +0100");
    // The file was full in the middle of record 3; its rest and what follows were written over the beginning. Of the old
    // record 1 only the end is left, behind the newest record, which is not complete either.
    log("kmsg.log",
        "cond half\n<6>[    4.000000] four\n<6>[    5.000000] fi of one\n"
        "<6>[    2.000000] two\n<6>[    3.000000] three: first half, se");
    EXPECT_EQ(view().out,
              "01-02 03:00:02.000000 kernel  <6>[    2.000000] two\n"
              "01-02 03:00:03.000000 kernel  <6>[    3.000000] three: first half, second half\n"
              "01-02 03:00:04.000000 kernel  <6>[    4.000000] four\n"
              "01-02 03:00:05.000000 kernel  <6>[    5.000000] fi of one\n");
}

TEST_F(View, PlacesKernelMessagesOfAnEarlierBootBeforeTheNextOne) {
    clocks("2026-01-02T02:10:00.000Z", "600.00", " +0100");
    log("kmsg.log", "[2026-01-02 03:00:10]\n<6>[   12.000000] same boot, later start\n");
    log("kmsg.log.1", "[2026-01-02 03:00:05]\n<6>[    0.000000] last boot\n<6>[   11.000000] end of file\n");
    log("kmsg.log.2", "[2026-01-01 20:00:00]\n<6>[    0.000000] boot before\n<6>[   50.000000] its end\n");
    const host_result result = view();
    EXPECT_EQ(result.out,
              "01-01 20:00:00.000000 kernel  <6>[    0.000000] boot before\n"
              "01-01 20:00:50.000000 kernel  <6>[   50.000000] its end\n"
              "01-02 03:00:00.000000 kernel  <6>[    0.000000] last boot\n"
              "01-02 03:00:11.000000 kernel  <6>[   11.000000] end of file\n"
              "01-02 03:00:12.000000 kernel  <6>[   12.000000] same boot, later start\n");
    EXPECT_NE(result.err.find("Times of kernel messages are estimated"), std::string::npos) << result.err;
}

TEST_F(View, AKernelFileBegunBeforeTheBootIsOfAnEarlierOne) {
    clocks("2026-01-02T02:10:00.000Z", "600.00", " +0100");
    log("kmsg.log", "<6>[    5.000000] overwritten file of the last boot\n");
    log("kmsg.log.1", "[2026-01-01 20:00:00]\n<6>[    1.000000] boot before\n");
    EXPECT_EQ(view().out,
              "01-01 20:00:01.000000 kernel  <6>[    1.000000] boot before\n"
              "01-02 03:00:05.000000 kernel  <6>[    5.000000] overwritten file of the last boot\n");
}

TEST_F(View, DoesNotUseTheBootOfAHandsetThatHasRebootedSince) {
    clocks("2026-01-02T05:00:00.000Z", "600.00", " +0100");  // booted hours after the set was saved
    log("kmsg.log", "<6>[   11.000000] last before the set\n");
    const host_result result = view();
    EXPECT_EQ(result.out, "01-02 03:04:05.000000 kernel  <6>[   11.000000] last before the set\n");
    EXPECT_NE(result.err.find("Times of kernel messages are estimated"), std::string::npos) << result.err;
}

TEST_F(View, EstimatesKernelTimesWithoutARecordedUptime) {
    log("kmsg.log", "[2026-01-02 03:04:00]\n<6>[    1.000000] one\n<4>[   11.000000] last before the set\n");
    const host_result result = view();
    EXPECT_EQ(result.out,
              "01-02 03:03:55.000000 kernel  <6>[    1.000000] one\n"
              "01-02 03:04:05.000000 kernel  <4>[   11.000000] last before the set\n");
    EXPECT_EQ(
        result.err,
        "sa-host: Times of kernel messages are estimated: the set does not tell when the handset had booted. fetch "
        "records that in handset.txt.\n");
    EXPECT_EQ(view({"--grep", "nothing"}).err, "");
}

TEST_F(View, KernelMessagesWithoutTimesFollowTheHeader) {
    log("kmsg.log", "[2026-01-02 03:04:00]\n<6>one\n<6>two\n");
    EXPECT_EQ(view().out, "01-02 03:04:00.000000 kernel  <6>one\n01-02 03:04:00.000000 kernel  <6>two\n");
}

TEST_F(View, LinesWithoutAYearAreNotAfterTheSet) {
    log("logcat.log",
        "02-29 10:00:00.000000     1     1 D t: leap day\n"
        "12-31 23:59:59.000000     1     1 D t: old year\n"
        "01-01 00:00:00.000000     1     1 D t: new year\n");
    EXPECT_EQ(view({"--since", "2025-12-31 00:00"}).out,
              "12-31 23:59:59.000000 main        1     1 D t: old year\n"
              "01-01 00:00:00.000000 main        1     1 D t: new year\n");
    EXPECT_EQ(view({"--since", "2024-02-29T10:00:00", "--until", "2024-02-29 10:00"}).out,
              "02-29 10:00:00.000000 main        1     1 D t: leap day\n");
}

TEST_F(View, BoundsIncludeWhatTheyName) {
    log("sa.log", "[01-02 03:00:59.999]a\n[01-02 03:01:00.000]b\n[01-02 03:01:00.500]c\n[01-02 03:02:00.000]d\n");
    const std::string b = "01-02 03:01:00.000    sa      b\n";
    const std::string c = "01-02 03:01:00.500    sa      c\n";
    EXPECT_EQ(view({"--since", "01-02 03:01", "--until", "01-02 03:01"}).out, b + c);
    EXPECT_EQ(view({"--since", "03:01", "--until", "03:01:00"}).out, b + c);
    EXPECT_EQ(view({"--since=01-02 03:01:00.5", "--until=01-02 03:01:00.500"}).out, c);
    EXPECT_EQ(view({"--since=03:01:00.000", "--until=03:01:00.000"}).out, b);
    for (const char *wrong : {"yesterday", "01-02", "13-02 00:00", "01-02 25:00", "01-02 03:01x", "03:01:"}) {
        const host_result result = view({"--since", wrong});
        EXPECT_EQ(result.status, 3) << wrong;
        EXPECT_EQ(result.out, "") << wrong;
        EXPECT_NE(result.err.find("is not a time"), std::string::npos) << result.err;
    }
}

TEST_F(View, ChoosesSourcesAndLines) {
    log("sa.log", "[01-02 03:00:01.000]main pid[5]\n");
    log("logcat.log", "01-02 03:00:02.000000     1     1 D zr-qel-sa: main pid[5]\n");
    log("logcat-radio.log", "01-02 03:00:03.000000     1     1 D RILJ: pid\n");
    EXPECT_EQ(view({"--only", "sa,radio", "--grep", "pid\\[[0-9]+\\]$"}).out,
              "01-02 03:00:01.000    sa      main pid[5]\n");
    EXPECT_EQ(view({"-o", "radio"}).out, "01-02 03:00:03.000000 radio       1     1 D RILJ: pid\n");
    EXPECT_EQ(view({"-g", "^01-02 03:00:0[12].* D "}).out,
              "01-02 03:00:02.000000 main        1     1 D zr-qel-sa: main pid[5]\n");
    const host_result source = view({"--only", "sa,syslog"});
    EXPECT_EQ(source.status, 3);
    EXPECT_EQ(source.err,
              "sa-host: \"syslog\" is not a source. The sources are: kernel, main, events, radio, sa, packets.\n");
    const host_result pattern = view({"--grep", "a("});
    EXPECT_EQ(pattern.status, 3);
    EXPECT_EQ(pattern.err, "sa-host: \"a(\" is not a regular expression: Unmatched ( or \\(.\n");
}

TEST_F(View, EscapesWhatATerminalWouldObey) {
    log("sa.log", std::string("[01-02 03:00:01.000]req[AT\r] \033[31m\tgr\xc3\xbc\xc3\x9f \xff\xc2\x9b\x7f\0.\n", 49));
    EXPECT_EQ(view().out,
              "01-02 03:00:01.000    sa      req[AT\\r] \\x1b[31m\tgr\xc3\xbc\xc3\x9f \\xff\\xc2\\x9b\\x7f\\x00.\n");
}

TEST_F(View, LinesWithoutATimeFollowTheirNeighbours) {
    log("logcat.log",
        "rest of a line\n01-02 03:00:01.000000     1     1 D t: one\ncontinued\n"
        "01-02 03:00:03.000000     1     1 D t: three");
    log("sa.log", "[01-02 03:00:02.000]two\nmore\n");
    EXPECT_EQ(view().out,
              "01-02 03:00:01.000000 main    rest of a line\n"
              "01-02 03:00:01.000000 main        1     1 D t: one\n"
              "01-02 03:00:01.000000 main    continued\n"
              "01-02 03:00:02.000    sa      two\n"
              "01-02 03:00:02.000    sa      more\n"
              "01-02 03:00:03.000000 main        1     1 D t: three\n");
}

TEST_F(View, CutsEndlessLines) {
    log("sa.log", "[01-02 03:00:01.000]" + std::string(200000, 'x') + "\n[01-02 03:00:02.000]end\n");
    const std::string out = view().out;
    EXPECT_EQ(std::count(out.begin(), out.end(), 'x'), 200000);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 5);
    EXPECT_NE(out.find("01-02 03:00:02.000    sa      end\n"), std::string::npos);
}

TEST_F(View, PacketsFollowTheZoneThroughTheChangeOfItsClocks) {
    if (access("/usr/share/zoneinfo/Europe/Berlin", R_OK) != 0) {
        GTEST_SKIP() << "the package tzdata is not installed";
    }
    const unsigned change = 1761440400;  // 2025-10-26 01:00:00 UTC
    log("ipdata.pcap0", set_capture({{change - 1, 0}, {change, 0}}));
    const std::string expected =
        "10-26 02:59:59.000000 packets IP 10.0.0.1.1000 > 10.0.0.2.9: UDP, length 0\n"
        "10-26 02:00:00.000000 packets IP 10.0.0.1.1000 > 10.0.0.2.9: UDP, length 0\n";
    clocks("2026-01-02T02:10:00.000Z", "600.00", "Europe/Berlin +0100");
    EXPECT_EQ(view().out, expected);
    // A name that does not agree with the offset is another zone's.
    clocks("2026-01-02T02:10:00.000Z", "600.00", "Europe/Berlin +0900");
    EXPECT_EQ(view().out.substr(0, 15), "10-26 09:59:59.");
    unlink((set + "/handset.txt").c_str());
    set_write(set, "getprop.log", "[ro.x]: [1]\n[persist.sys.timezone]: [Europe/Berlin]\n");
    EXPECT_EQ(view().out, expected);
    EXPECT_EQ(view().err, "");
}

TEST_F(View, SaysWhenTheZoneIsThisMachines) {
    log("ipdata.pcap0", set_capture({{kTwo, 0}}));
    setenv("TZ", "XYZ-3", 1);
    const host_result result = view();
    unsetenv("TZ");
    EXPECT_EQ(result.out, "01-02 05:00:00.000000 packets IP 10.0.0.1.1000 > 10.0.0.2.9: UDP, length 0\n");
    EXPECT_NE(result.err.find("Times of packets assume"), std::string::npos) << result.err;
}

TEST_F(View, TellsWhatTcpdumpCannotRead) {
    log("ipdata.pcap0", std::string(100, 'x'));
    log("sa.log", "[01-02 03:00:01.000]main\n");
    const host_result result = view();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "01-02 03:00:01.000    sa      main\n");
    EXPECT_EQ(result.err, "sa-host: " + set + "/log/ipdata.pcap0 is left out: tcpdump cannot read it.\n");
}

TEST_F(View, ReadsALogDirectoryByItself) {
    log("sa.log", "[01-02 03:00:01.000]main\n");
    const host_result result = host_run({"view", set + "/log"});
    EXPECT_EQ(result.out, "01-02 03:00:01.000    sa      main\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(View, ListsTheSetsOfADirectory) {
    set_make(dir, "2026_01_02_03_04_06");
    ASSERT_EQ(unlink((dir.path + "/2026_01_02_03_04_06/ps.log").c_str()), 0);
    set_write(dir.path, ".2026_01_02_03_04_07.tar.part", std::string(1000, 'x'));
    set_write(dir.path, ".2026_01_02_03_04_07.tar.sum", "4711 20000\n");
    set_write(dir.path, "notes.txt", "x");
    const host_result result = host_run({"view", dir.path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "2026_01_02_03_04_05       16 B  complete\n"
              "2026_01_02_03_04_06       14 B  incomplete: it has no ps.log\n"
              "2026_01_02_03_04_07     1.0 kB  incomplete: 1.0 kB of 20.0 kB fetched, fetch it again to go on\n");
}

TEST_F(View, TellsThatASetIsIncomplete) {
    log("sa.log", "[01-02 03:00:01.000]main\n");
    set_write(set, "bugreport.log", "");
    const host_result result = view();
    EXPECT_EQ(result.out, "01-02 03:00:01.000    sa      main\n");
    EXPECT_EQ(result.err,
              "sa-host: The set is incomplete: it has no text in bugreport.log. save-log was interrupted.\n");
}

TEST_F(View, TellsWhatIsNoSet) {
    EXPECT_EQ(host_run({"view", dir.path + "/none"}).err,
              "sa-host: " + dir.path + "/none cannot be read: No such file or directory.\n");
    EXPECT_EQ(host_run({"view", set + "/ps.log"}).err,
              "sa-host: " + set + "/ps.log is not a directory: give the directory of a log set.\n");
    temporary_dir empty;
    const host_result result = host_run({"view", empty.path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "sa-host: " + empty.path +
                  " holds no log set and no collector's file. sa-host fetch copies a set from a handset.\n");
}

// ---- On a terminal

TEST_F(View, ColoursLinesOnATerminal) {
    log("logcat.log", "01-02 03:00:01.000000     1     1 E t: bad\n");
    host_terminal terminal;
    terminal_start({"/usr/bin/env", "TERM=xterm", "PAGER=cat", SA_HOST, "view", set}, &terminal);
    EXPECT_EQ(terminal_finish(&terminal), 0);
    EXPECT_EQ(terminal.screen,
              "\033[2m01-02 03:00:01.000000 \033[0m\033[32mmain    \033[0m\033[31m    1     1 E t: bad\033[0m\r\n");
    terminal_end(&terminal);
    host_terminal plain;
    terminal_start({"/usr/bin/env", "TERM=xterm", "NO_COLOR=1", "PAGER=", SA_HOST, "view", set}, &plain);
    EXPECT_EQ(terminal_finish(&plain), 0);
    EXPECT_EQ(plain.screen, "01-02 03:00:01.000000 main        1     1 E t: bad\r\n");
    terminal_end(&plain);
}

TEST_F(View, ShowsLinesThroughThePager) {
    std::string lines;
    for (int i = 0; i < 20000; ++i) {
        lines += "[01-02 03:00:01.000]line " + std::to_string(i) + "\n";
    }
    log("sa.log", lines);
    host_terminal terminal;
    terminal_start({"/usr/bin/env", "TERM=dumb", "PAGER=sed -u 's/^/> /;2q'", SA_HOST, "view", set}, &terminal);
    EXPECT_EQ(terminal_finish(&terminal), 0);
    EXPECT_EQ(terminal.screen, "> 01-02 03:00:01.000    sa      line 0\r\n> 01-02 03:00:01.000    sa      line 1\r\n");
    terminal_end(&terminal);
}

TEST_F(View, PagesWithLessUnlessToldOtherwise) {
    if (access("/usr/bin/less", X_OK) != 0) {
        GTEST_SKIP() << "the package less is not installed";
    }
    std::string lines;
    for (int i = 0; i < 100; ++i) {
        lines += "[01-02 03:00:01.000]line " + std::to_string(i) + ".\n";
    }
    log("sa.log", lines);
    host_terminal terminal;
    terminal_start({"/usr/bin/env", "-u", "PAGER", "-u", "LESS", "TERM=xterm", SA_HOST, "view", set}, &terminal);
    EXPECT_TRUE(terminal_expect(&terminal, "line 22."));
    kill(terminal.pid, SIGINT);  // Ctrl-C belongs to less, which goes on
    terminal_type(&terminal, "G");
    EXPECT_TRUE(terminal_expect(&terminal, "line 99."));
    terminal_type(&terminal, "q");
    EXPECT_EQ(terminal_finish(&terminal), 0);
    terminal_end(&terminal);
}

// ---- Memory

// The largest resident size of one run, in kilobytes.
long memory_of(const std::string &path) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (freopen("/dev/null", "w", stdout) == nullptr) {
            _exit(126);
        }
        execl(SA_HOST, SA_HOST, "view", path.c_str(), nullptr);
        _exit(127);
    }
    int status = -1;
    struct rusage usage = {};
    EXPECT_EQ(wait4(pid, &status, 0, &usage), pid);
    EXPECT_EQ(status, 0);
    return usage.ru_maxrss;
}

TEST_F(View, NeedsNoMoreMemoryForALargeSet) {
    if (is_sanitized()) {
        GTEST_SKIP() << "sanitizers keep memory for themselves";
    }
    log("logcat.log", "01-02 03:00:01.000000     1     1 D tag: x\n");
    const long small = memory_of(set);
    for (const char *name : {"logcat.log.1", "logcat.log.2", "logcat-radio.log"}) {
        FILE *file = fopen((set + "/log/" + name).c_str(), "we");
        ASSERT_NE(file, nullptr);
        for (int i = 0; i < 100000; ++i) {  // 10 MB
            fprintf(file, "01-02 03:00:01.000000     1     1 D tag: %060d\n", i);
        }
        fclose(file);
    }
    EXPECT_LT(memory_of(set) - small, 4000);
}

// ---- A real set

class ViewHandset : public HostTest {};

TEST_F(ViewHandset, ShowsASetThatHasBeenFetched) {
    ASSERT_NO_FATAL_FAILURE(boot_host(desk_options()));
    ASSERT_TRUE(desk_kmsg_feed(h, "<6>[    0.000001] before the set\n") && desk_kmsg_drained(h));
    temporary_dir dir;
    ASSERT_EQ(host({"save-log", "--fetch", dir.path}).status, 0);
    const std::string list = host_run({"view", dir.path}).out;
    ASSERT_GT(list.size(), 29u);
    EXPECT_EQ(list.substr(list.size() - 11), "  complete\n") << list;
    const host_result result = host_run({"view", dir.path + "/" + list.substr(0, 19)});
    EXPECT_EQ(result.err, "");
    EXPECT_NE(result.out.find(" sa      handle_sa_cmd_req req[AT SA+SAVE_LOG\\r]\n"), std::string::npos);
    EXPECT_NE(result.out.find(" D zr-qel-sa: main()\n"), std::string::npos);
    EXPECT_NE(result.out.find(" kernel  <6>[    0.000001] before the set\n"), std::string::npos);
}

}  // namespace
