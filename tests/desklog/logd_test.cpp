// The log daemon from outside: what it lets in, who gets what, its journal, bursts, slow readers, restarts.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "handset/logd/wire.h"
#include "programs.h"

struct Logd : log_desk {
    // A socket of the test itself, connected to one of the daemon's.
    int connect_to(const char *path, int type) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string host_path = desk_host_path(h, path);
        EXPECT_LT(host_path.size(), sizeof address.sun_path);
        memcpy(address.sun_path, host_path.c_str(), host_path.size() + 1);
        const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof address), 0) << strerror(errno);
        return fd;
    }
    void send_raw(const std::string &record) {
        const int fd = connect_to(kLogWriteSocket, SOCK_DGRAM);
        EXPECT_EQ(send(fd, record.data(), record.size(), 0), static_cast<ssize_t>(record.size()));
        close(fd);
    }
    int ask(const std::string &request) {
        const int fd = connect_to(kLogReadSocket, SOCK_SEQPACKET);
        EXPECT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
        return fd;
    }
    // Sets the descriptor to give up after ten seconds and reads one packet; "" at the end of the stream.
    std::string next(int fd) {
        char packet[8192];
        struct pollfd waiting = {fd, POLLIN, 0};
        if (poll(&waiting, 1, 10000) != 1) {
            return "time is up";
        }
        const ssize_t length = recv(fd, packet, sizeof packet, 0);
        return length > 0 ? std::string(packet, static_cast<size_t>(length)) : "";
    }
};

static std::string record(unsigned char buffer, const std::string &payload) {
    const log_record_header header = {buffer, 258, 1000000000, 123456789};
    return std::string(reinterpret_cast<const char *>(&header), sizeof header) + payload;
}

static std::string text_payload(const std::string &text) {
    return std::string("\4raw\0", 5) + text + '\0';
}

TEST_F(Logd, SocketsAreForEveryone) {
    EXPECT_EQ(desk_owner(h, kLogWriteSocket), "0222 1036:1036");
    EXPECT_EQ(desk_owner(h, kLogReadSocket), "0666 1036:1036");
}

TEST_F(Logd, LetsInOnlyRecords) {
    send_raw(record(0, ""));
    send_raw(std::string(3, '\0'));
    send_raw("");
    send_raw(record(7, text_payload("kernel's own")));
    send_raw(record(8, text_payload("no such buffer")));
    send_raw(record(255, text_payload("no such buffer")));
    send_raw(record(6, text_payload("last valid buffer")));
    send_raw(record(0, text_payload("good")));
    ASSERT_NE(desk_wait_log(h, "raw", "good"), 0u);
    const std::vector<std::string> lines = lines_of(text("/dev/.desk/log.journal"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(0, 42), "1\t1000000000.123456789\tsecurity\t0\t258\t0\tI\t");
    EXPECT_EQ(lines[1], "2\t1000000000.123456789\tmain\t0\t258\t0\tI\traw\tgood");
}

TEST_F(Logd, CutsWhatIsLongerThanARecord) {
    send_raw(record(0, text_payload(std::string(7000, 'x'))));
    log({"-t", "behind", "it"});
    const std::vector<desk_log_entry> entries = desk_log(h, "raw");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].text, std::string(4068 - 5, 'x'));
}

TEST_F(Logd, JournalEscapesWhatWouldBreakItsLines) {
    send_raw(record(0, text_payload("a\tb\nc\\d\re\x01\x7f")));
    ASSERT_NE(desk_wait_log_part(h, "raw", "a"), 0u);
    EXPECT_EQ(lines_of(text("/dev/.desk/log.journal")).at(0),
              "1\t1000000000.123456789\tmain\t0\t258\t0\tI\traw\ta\\tb\\nc\\\\d\\re\\x01\\x7F");
}

TEST_F(Logd, JournalTellsWhoSentWhat) {
    ASSERT_EQ(run({"log", "-b", "radio", "-p", "E", "-t", "who", "I am"}, kShell, kShell).status, 0);
    ASSERT_NE(desk_wait_log(h, "who", "I am"), 0u);
    const desk_log_entry entry = desk_log(h, "who").at(0);
    EXPECT_EQ(entry.buffer, "radio");
    EXPECT_EQ(entry.uid, kShell);
    EXPECT_EQ(entry.priority, 'E');
    EXPECT_GT(entry.pid, 1);
    EXPECT_EQ(entry.tid, entry.pid);
}

TEST_F(Logd, AnswersWithHeaderAndPayload) {
    log({"-t", "one", "1"});
    log({"-t", "two", "2"});
    send_raw(record(0, text_payload("three")));
    ASSERT_NE(desk_wait_log(h, "raw", "three"), 0u);
    const int fd = ask("dumpAndClose lids=0 tail=2");
    const std::string first = next(fd);
    ASSERT_EQ(first.size(), sizeof(log_answer_header) + 1 + 4 + 2);
    EXPECT_EQ(first.substr(sizeof(log_answer_header)), std::string("\4two\0"
                                                                   "2\0",
                                                                   7));
    const std::string second = next(fd);
    log_answer_header header = {};
    ASSERT_EQ(second.size(), sizeof header + text_payload("three").size());
    memcpy(&header, second.data(), sizeof header);
    EXPECT_EQ(header.length, text_payload("three").size());
    EXPECT_EQ(header.header_size, 28u);
    EXPECT_EQ(header.pid, 0);
    EXPECT_EQ(header.tid, 258u);
    EXPECT_EQ(header.sec, 1000000000u);
    EXPECT_EQ(header.nsec, 123456789u);
    EXPECT_EQ(header.buffer, 0u);
    EXPECT_EQ(header.uid, 0u);
    EXPECT_EQ(second.substr(sizeof header), text_payload("three"));
    EXPECT_EQ(next(fd), "");
    close(fd);
}

TEST_F(Logd, StartAppliesToWhatIsStoredOnly) {
    send_raw(record(0, text_payload("at the stamp")));
    ASSERT_NE(desk_wait_log(h, "raw", "at the stamp"), 0u);
    const int same = ask("stream lids=0 start=1000000000.123456789");
    const int before = ask("stream lids=0 start=1000000000.123456788");
    const size_t header = sizeof(log_answer_header);
    EXPECT_EQ(next(before).substr(header), text_payload("at the stamp"));
    send_raw(record(0, text_payload("new, with an old stamp")));
    EXPECT_EQ(next(before).substr(header), text_payload("new, with an old stamp"));
    EXPECT_EQ(next(same).substr(header), text_payload("new, with an old stamp"));
    close(same);
    close(before);
}

TEST_F(Logd, HangsUpOnWhatIsNoRequest) {
    const int fd = ask("give me everything");
    EXPECT_EQ(next(fd), "");
    close(fd);
}

TEST_F(Logd, UsersSeeTheirOwnEntriesAndTheLogGroupAll) {
    log({"-t", "root", "secret"});
    ASSERT_EQ(run({"log", "-t", "shell", "own"}, kShell, kShell).status, 0);
    ASSERT_NE(desk_wait_log(h, "shell", "own"), 0u);
    const auto sees = [this](uid_t uid, gid_t gid) {
        const std::string all = dump({"-b", "main"}, uid, gid);
        return std::to_string(occurrences(all, "secret")) + std::to_string(occurrences(all, "own"));
    };
    EXPECT_EQ(sees(0, 0), "11");
    EXPECT_EQ(sees(kShell, kShell), "01");
    EXPECT_EQ(sees(kShell, kLog), "11");
    EXPECT_EQ(sees(1000, 1000), "11");
    EXPECT_EQ(sees(9999, 9999), "00");
    EXPECT_EQ(sees(9999, 0), "11");
}

TEST_F(Logd, BurstsArriveWholeAndInOrder) {
    static constexpr size_t kEntries = 20000;
    log({"-t", "burst", "-n", std::to_string(kEntries), "number"});
    const std::vector<desk_log_entry> entries = desk_log(h, "burst");
    ASSERT_EQ(entries.size(), kEntries);
    for (size_t i = 0; i < kEntries; i++) {
        ASSERT_EQ(entries[i].text, "number " + std::to_string(i + 1));
    }
}

TEST_F(Logd, RingsAreBoundedAndDropTheOldest) {
    log({"-b", "radio", "-t", "other", "ring"});
    log({"-t", "fill", "-n", "3000", std::string(1000, 'x')});
    const std::vector<std::string> kept = lines_of(dump({"-b", "main", "-v", "raw"}));
    ASSERT_GT(kept.size(), 900u);
    EXPECT_LT(kept.size(), 1100u);
    EXPECT_EQ(kept.back(), std::string(1000, 'x') + " 3000");
    EXPECT_EQ(occurrences(dump({"-b", "radio"}), "ring"), 1u);
}

TEST_F(Logd, ReaderThatDoesNotReadDelaysNobody) {
    const int lazy = ask("stream lids=0");
    const int busy = ask("stream lids=0");
    log({"-t", "flow", "-n", "20000", "number"});
    log({"-t", "flow", "the end"});
    EXPECT_EQ(desk_log(h, "flow").size(), 20001u);
    std::string latest;
    while (latest.find("the end") == std::string::npos) {
        latest = next(busy);
        ASSERT_NE(latest, "time is up");
        ASSERT_NE(latest, "");
    }
    close(lazy);
    close(busy);
    EXPECT_NE(dump({"-t", "1", "-b", "main"}).find("the end"), std::string::npos);
}

TEST_F(Logd, AddsUpTheLossesThatSendersTell) {
    log({"-e", "1006", "i:12"});
    log({"-e", "1006", "i:30"});
    EXPECT_TRUE(desk_wait_text(h, "/dev/.desk/log.lost", "42\n"));
    EXPECT_EQ(occurrences(dump({"-b", "events"}), "I liblog  : 12\n"), 1u);
}

TEST_F(Logd, RestartedDaemonTakesEntriesAndGoesOnNumbering) {
    log({"-t", "first", "life"});
    const uint64_t before = desk_log(h, "first").at(0).sequence;
    ASSERT_EQ(desk_service_stop(h, "logd"), 0);
    ASSERT_TRUE(desk_wait_service(h, "logd", "stopped"));
    EXPECT_EQ(exit_code(run({"log", "to nobody"}).status), 1);
    ASSERT_EQ(desk_service_start(h, "logd"), 0);
    ASSERT_TRUE(desk_until([this] { return exit_code(run({"log", "-t", "second", "life"}).status) == 0; }));
    ASSERT_NE(desk_wait_log(h, "second", "life"), 0u);
    EXPECT_GT(desk_log(h, "second").at(0).sequence, before);
    EXPECT_EQ(occurrences(dump(), "first"), 0u);
}
