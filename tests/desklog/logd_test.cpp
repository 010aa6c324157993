// The log daemon: which records become entries, the lines of the journal, bursts and restarts.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "handset/common/paths.h"
#include "handset/logd/wire.h"
#include "tests/desklog/programs.h"

struct Logd : log_desk {
    void send_raw(const std::string &record) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string path = desk_host_path(h, LOG_WRITE_SOCKET);
        ASSERT_LT(path.size(), sizeof(address.sun_path));
        memcpy(address.sun_path, path.c_str(), path.size() + 1);
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)), 0) << strerror(errno);
        ASSERT_EQ(send(fd, record.data(), record.size(), 0), static_cast<ssize_t>(record.size()));
        close(fd);
    }
    // The text of an events record with these values.
    std::string event_text(const std::string &values);
};

static std::string record(unsigned char buffer, const std::string &payload) {
    const log_record_header header = {buffer, 258, 1000000000, 123456789};
    return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + payload;
}

static std::string text_payload(const std::string &text) {
    return std::string("\4raw\0", 5) + text + '\0';
}

std::string Logd::event_text(const std::string &values) {
    static const std::string number("\1\0\0\0", 4);
    send_raw(record(2, number + values));
    log({"-t", "after", "it"});
    const std::vector<desk_log_entry> entries = desk_log(h, "1");
    return entries.empty() ? "no entry" : entries.back().text;
}

TEST_F(Logd, SocketsAndJournalHaveTheirModes) {
    EXPECT_EQ(desk_owner(h, LOG_WRITE_SOCKET), "0222 1036:1036");
    EXPECT_EQ(desk_owner(h, LOG_READ_SOCKET), "0666 1036:1036");
    EXPECT_EQ(desk_owner(h, LOG_JOURNAL), "0640 0:1007");
}

TEST_F(Logd, OnlyRecordsBecomeEntries) {
    send_raw(record(0, ""));
    send_raw(std::string(3, '\0'));
    send_raw("");
    send_raw(record(7, text_payload("kernel's own")));
    send_raw(record(8, text_payload("no such buffer")));
    send_raw(record(255, text_payload("no such buffer")));
    send_raw(record(6, text_payload("last valid buffer")));
    send_raw(record(0, text_payload("good")));
    ASSERT_NE(desk_wait_log(h, "raw", "good"), 0u);
    const std::vector<std::string> lines = lines_of(text(LOG_JOURNAL));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(0, 42), "1\t1000000000.123456789\tsecurity\t0\t258\t0\tI\t");
    EXPECT_EQ(lines[1], std::to_string(lines[0].size() + 2) + "\t1000000000.123456789\tmain\t0\t258\t0\tI\traw\tgood");
}

TEST_F(Logd, LongRecordIsCut) {
    send_raw(record(0, text_payload(std::string(7000, 'x'))));
    log({"-t", "after", "it"});
    const std::vector<desk_log_entry> entries = desk_log(h, "raw");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].text, std::string(4068 - 5, 'x'));
}

TEST_F(Logd, JournalEscapesControlBytes) {
    send_raw(record(0, text_payload("a\tb\nc\\d\re\x01\x7f")));
    ASSERT_NE(desk_wait_log(h, "raw", "a\tb\nc\\d\re\x01\x7f"), 0u);
    EXPECT_EQ(lines_of(text(LOG_JOURNAL)).at(0),
              "1\t1000000000.123456789\tmain\t0\t258\t0\tI\traw\ta\\tb\\nc\\\\d\\re\\x01\\x7F");
}

TEST_F(Logd, EntryHasTheSendersIdentity) {
    ASSERT_EQ(run({"log", "-b", "radio", "-p", "E", "-t", "who", "I am"}, kShell, kShell).status, 0);
    ASSERT_NE(desk_wait_log(h, "who", "I am"), 0u);
    const desk_log_entry entry = desk_log(h, "who").at(0);
    EXPECT_EQ(entry.buffer, "radio");
    EXPECT_EQ(entry.uid, kShell);
    EXPECT_EQ(entry.priority, 'E');
    EXPECT_GT(entry.pid, 1);
    EXPECT_EQ(entry.tid, entry.pid);
}

TEST_F(Logd, EventValuesBecomeText) {
    EXPECT_EQ(event_text(std::string("\0\xff\xff\xff\xff", 5)), "-1");
    EXPECT_EQ(event_text(std::string("\2\3\0\0\0abc", 8)), "abc");
    EXPECT_EQ(event_text(std::string("\2\xff\xff\xff\xff", 5) + "ab"), "ab") << "a string that is cut off";
    EXPECT_EQ(event_text("\7"), "") << "an unknown type";
}

TEST_F(Logd, BurstArrivesWholeAndInOrder) {
    static const size_t kEntries = 20000;
    log({"-t", "burst", "-n", std::to_string(kEntries), "number"});
    const std::vector<desk_log_entry> entries = desk_log(h, "burst");
    ASSERT_EQ(entries.size(), kEntries);
    for (size_t i = 0; i < kEntries; i++) {
        ASSERT_EQ(entries[i].text, "number " + std::to_string(i + 1));
    }
}

TEST_F(Logd, RestartedDaemonContinuesTheJournal) {
    log({"-t", "first", "life"});
    const std::string cut_off = "cut off";
    ASSERT_EQ(desk_service_stop(h, "logd"), 0);
    ASSERT_TRUE(desk_wait_service(h, "logd", "stopped"));
    ASSERT_TRUE(desk_append_file(h, LOG_JOURNAL, cut_off));
    EXPECT_EQ(exit_code(run({"log", "to nobody"}).status), 1);
    ASSERT_EQ(desk_service_start(h, "logd"), 0);
    ASSERT_TRUE(desk_until([this] { return exit_code(run({"log", "-t", "second", "life"}).status) == 0; }));
    ASSERT_NE(desk_wait_log(h, "second", "life"), 0u);
    EXPECT_GT(desk_log(h, "second").at(0).sequence, desk_log(h, "first").at(0).sequence);
    EXPECT_EQ(occurrences(dump(), ": life\n"), 2u) << "the incomplete line is skipped";
}
