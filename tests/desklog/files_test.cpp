// logcat's files: names of older ones, what is counted, where an earlier run stopped, names of events. Runs inside a
// handset.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "handset/logcat/event_tags.h"
#include "handset/logcat/output.h"
#include "handset/logcat/resume.h"

static constexpr time_t kNow = 1705320000;  // 2024-01-15 12:00:00 UTC

struct LogFiles : ::testing::Test {
    char directory[32] = "/tmp/desklog.XXXXXX";

    LogFiles() {
        setenv("TZ", "UTC0", 1);
        tzset();
        EXPECT_NE(mkdtemp(directory), nullptr);
    }
    ~LogFiles() override {
        EXPECT_EQ(system((std::string("rm -r ") + directory).c_str()), 0);
    }
    std::string path(const std::string &name) const {
        return std::string(directory) + "/" + name;
    }
    std::string write(const std::string &text) const {
        std::ofstream(path("file")) << text;
        return path("file");
    }
    std::string read(const std::string &name) const {
        std::ostringstream text;
        text << std::ifstream(path(name)).rdbuf();
        return text.str();
    }
    std::string after(const std::string &text, time_t now = kNow) const {
        return resume_after(write(text).c_str(), now);
    }
};

TEST_F(LogFiles, NumbersHaveTheDigitsOfTheGreatest) {
    log_output output;
    output.file = "F";
    output.older_files = 9;
    EXPECT_EQ(output_name(output, 0), "F");
    EXPECT_EQ(output_name(output, 1), "F.1");
    output.older_files = 10;
    EXPECT_EQ(output_name(output, 1), "F.01");
    EXPECT_EQ(output_name(output, 10), "F.10");
    output.older_files = 100;
    EXPECT_EQ(output_name(output, 7), "F.007");
}

TEST_F(LogFiles, RotationStartsAtTheLimitAndKeepsTheCountOfFiles) {
    log_output output;
    output.file = path("F");
    output.rotate_kib = 1;
    output.older_files = 2;
    umask(0);
    ASSERT_TRUE(output_open(&output, false));
    ASSERT_TRUE(output_write(&output, "0"));
    ASSERT_TRUE(output_count(&output, 1023));
    EXPECT_EQ(access(path("F.1").c_str(), F_OK), -1);
    for (const char *text : {"1", "2", "3"}) {
        ASSERT_TRUE(output_count(&output, output.bytes == 1023 ? 1 : 1024));
        ASSERT_TRUE(output_write(&output, text));
    }
    EXPECT_EQ(read("F"), "3");
    EXPECT_EQ(read("F.1"), "2");
    EXPECT_EQ(read("F.2"), "1");
    EXPECT_EQ(access(path("F.3").c_str(), F_OK), -1);
    struct stat st = {};
    ASSERT_EQ(stat(path("F").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    close(output.fd);
}

TEST_F(LogFiles, SetsBlocksAsideWithoutChangingTheSize) {
    log_output output;
    output.file = path("F");
    output.rotate_kib = 64;
    ASSERT_TRUE(output_open(&output, true));
    struct stat st = {};
    ASSERT_EQ(fstat(output.fd, &st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_blocks * 512, 64 * 1024);
    close(output.fd);
}

TEST_F(LogFiles, ExistingFileIsContinuedAndItsSizeCounts) {
    write(std::string(1000, 'x'));
    log_output output;
    output.file = path("file");
    output.rotate_kib = 1;
    output.older_files = 1;
    ASSERT_TRUE(output_open(&output, false));
    ASSERT_TRUE(output_write(&output, std::string(24, 'y')));
    ASSERT_TRUE(output_count(&output, 24));
    EXPECT_EQ(read("file.1"), std::string(1000, 'x') + std::string(24, 'y'));
    EXPECT_EQ(read("file"), "");
    close(output.fd);
}

TEST_F(LogFiles, ResumesBehindTheNewestStamp) {
    EXPECT_EQ(after("01-15 11:59:58.000001     1     1 D t: a\n"
                    "01-15 11:59:59.123456     1     1 D t: b\n"
                    "01-15 11:59:58.999999     1     1 D t: late\n"),
              "1705319999.123456999");
    EXPECT_EQ(after("01-15 11:59:59.123 D/t( 1): b\n"), "1705319999.123999999");
    EXPECT_EQ(after("01-15 11:59:59.123456789     1     1 D t: b\n"), "1705319999.123456789");
}

TEST_F(LogFiles, LastYearsStampsAreLastYears) {
    EXPECT_EQ(after("12-31 23:59:59.5 x\n"), "1704067199.599999999");
    EXPECT_EQ(after("12-31 23:59:59.5 x\n01-01 00:00:00.0 x\n"), "1704067200.099999999");
}

TEST_F(LogFiles, FilesWithoutStampGiveNone) {
    EXPECT_EQ(after(""), "");
    EXPECT_EQ(after("--------- beginning of main\n"), "");
    EXPECT_EQ(after("13-40 11:59:59.123 x\n01-15 11:59:59 x\n01-15 11:59:59. x\n01-15 11:59:59.1x\nD/t( 1): b"), "");
    EXPECT_EQ(resume_after(path("missing").c_str(), kNow), "");
    EXPECT_EQ(resume_after(directory, kNow), "");
}

TEST_F(LogFiles, EventNames) {
    const event_tags tags = event_tags_read(
        write(
            "# comment\n42 answer (to life|3)\n314 pi\n\nnonsense\n7\n9\ttabbed\n99999999999 big\n-5 minus\n42 again\n")
            .c_str());
    EXPECT_EQ(tags.size(), 3u);
    EXPECT_EQ(event_tags_name(tags, 42), "answer");
    EXPECT_EQ(event_tags_name(tags, 314), "pi");
    EXPECT_EQ(event_tags_name(tags, 9), "tabbed");
    EXPECT_EQ(event_tags_name(tags, 7), "[7]");
    EXPECT_TRUE(event_tags_read(path("missing").c_str()).empty());
}
