// Sizes and times that need more than 32 bits: files larger than 2 GiB, years after 2038. Most useful in a 32-bit build.
#include <fcntl.h>
#include <unistd.h>

#include <regex>

#include "tests/support/collectors.h"

static const uint64_t kLarge = 3ull << 30;
static const char kKmsg[] = "/data/local/log/kmsg.log";

class Beyond32Bits : public CollectorTest {
  protected:
    // A file of 3 GiB that takes no room.
    void make_large(const std::string &path) {
        const int fd = desk_open(h, path, O_WRONLY | O_CREAT | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(ftruncate(fd, static_cast<off_t>(kLarge)), 0);
        close(fd);
    }
    uint64_t size_of(const std::string &path) {
        struct stat st = {};
        desk_stat(h, path, &st);
        return static_cast<uint64_t>(st.st_size);
    }
    std::string bytes_at(const std::string &path, uint64_t offset) {
        char bytes[256];
        const int fd = desk_open(h, path, O_RDONLY | O_CLOEXEC);
        const ssize_t count = pread(fd, bytes, sizeof(bytes), static_cast<off_t>(offset));
        close(fd);
        return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : "";
    }
};

TEST_F(Beyond32Bits, DiagnosticLogGoesOn) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(make_large(kSaLog));
    const std::string answer = ask("AT\r");
    const bool has_grown = desk_until([&] { return size_of(kSaLog) > kLarge; });
    const std::string begin = bytes_at(kSaLog, kLarge);
    desk_remove(h, kSaLog);  // nobody wants to see it when this fails
    EXPECT_EQ(answer, kOk);
    ASSERT_TRUE(has_grown);
    EXPECT_NE(begin.find("sa_handle_read_cmd_loop read_len[3]\n"), std::string::npos) << begin;
}

TEST_F(Beyond32Bits, KernelMessagesShiftALargeFile) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(make_large(kKmsg));
    ASSERT_EQ(desk_set_property(h, kLogProperty, log_property({{3, "5,20480"}})), 0);
    restart_agent();
    EXPECT_TRUE(desk_wait_text(h, kKmsg, "]\n"));
    EXPECT_EQ(size_of(std::string(kKmsg) + ".1"), kLarge);
}

TEST_F(Beyond32Bits, PacketsGiveALargeFileItsOwner) {
    const std::string first = "/data/local/log/ipdata.pcap0";
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.prepare = [](desk *handset) { return put_waiting_program(handset, "/system/xbin/tcpdump"); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_TRUE(desk_remove(h, first));
    ASSERT_NO_FATAL_FAILURE(make_large(first));
    restart_agent();
    EXPECT_TRUE(desk_until([&] { return desk_owner(h, first) == "0644 2000:1007"; })) << desk_owner(h, first);
    EXPECT_EQ(size_of(first), kLarge);
}

// What cannot be shifted is written over from its beginning.
TEST_F(Beyond32Bits, KernelMessagesOpenALargeFile) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_NO_FATAL_FAILURE(make_large(kKmsg));
    ASSERT_TRUE(desk_make_dir(h, std::string(kKmsg) + ".1/held"));
    ASSERT_TRUE(desk_make_dir(h, std::string(kKmsg) + ".2/held"));
    ASSERT_EQ(desk_set_property(h, kLogProperty, log_property({{3, "3,20480"}})), 0);
    restart_agent();
    ASSERT_TRUE(desk_until([&] { return bytes_at(kKmsg, 0)[0] == '['; }));
    EXPECT_EQ(size_of(kKmsg), kLarge);
}

TEST_F(Beyond32Bits, YearsAreTold) {
    desk_options options = with_log_property(log_property({{3, "5,20480"}}));
    preload(&options, "later_clock");
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(command("+SAVE_LOG", 60000), kOk);

    const time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    // 20 years of 365 days: a few days before the same date.
    const std::string years =
        "(" + std::to_string(1900 + utc.tm_year + 19) + "|" + std::to_string(1900 + utc.tm_year + 20) + ")";
    const std::vector<std::string> sets = desk_list(h, "/storage/real_sd/logs");
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_TRUE(std::regex_match(sets[0], std::regex(years + "_\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d\\d"))) << sets[0];
    const std::string stamp = desk_file_text(h, kKmsg).substr(0, 22);
    EXPECT_TRUE(std::regex_match(stamp, std::regex("\\[" + years + "-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\]\n")))
        << stamp;

    // The prefix of a line is that of the directory made in the same seconds: month, day, hour.
    std::string expected = "[" + sets[0].substr(5, 2) + "-" + sets[0].substr(8, 2) + " " + sets[0].substr(11, 2) + ":";
    EXPECT_NE(desk_file_text(h, kSaLog).find(expected), std::string::npos) << expected;
}
