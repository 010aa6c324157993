// Configuration lines: reading, also of long lines in pieces, and splitting into key and value.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "pub/cfg/cfg.h"
#include "tests/unit/log_lines.h"

class CfgLine : public LogLinesTest {
  protected:
    void TearDown() override {
        if (stream != nullptr) {
            fclose(stream);
        }
    }

    void open_text(const std::string &text) {
        write_file("/tmp/lines", text);
        stream = fopen("/tmp/lines", "r");
        ASSERT_NE(stream, nullptr);
    }

    // One call with a buffer of 100 bytes that held something else before.
    int32_t next() {
        memset(line, 'x', sizeof(line));
        length = -1;
        is_eof = -1;
        return pub_cfg_get_line(stream, line, 100, &length, &is_eof);
    }

    FILE *stream = nullptr;
    char line[120];
    int32_t length = 0;
    int32_t is_eof = 0;
};

TEST_F(CfgLine, KeepsItsLineEnd) {
    open_text("zr.tty.cmd = a\r\nb\n");
    EXPECT_EQ(next(), 0);
    EXPECT_STREQ(line, "zr.tty.cmd = a\r\n");
    EXPECT_EQ(length, 16);
    EXPECT_EQ(is_eof, 0);
    EXPECT_EQ(next(), 0);
    EXPECT_STREQ(line, "b\n");
    EXPECT_EQ(length, 2);
}

TEST_F(CfgLine, ZeroesTheWholeBufferAndNothingBehindIt) {
    open_text("ab\n");
    ASSERT_EQ(next(), 0);
    for (int at = 3; at < 100; at++) {
        EXPECT_EQ(line[at], '\0') << at;
    }
    EXPECT_EQ(line[100], 'x');
}

TEST_F(CfgLine, OfMoreThan98CharactersComesInPieces) {
    open_text(std::string(90, 'a') + std::string(60, 'b') + "\nc\n");
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(line, std::string(90, 'a') + std::string(8, 'b'));
    EXPECT_EQ(length, 98);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(line, std::string(52, 'b') + "\n");
    EXPECT_EQ(length, 53);
    EXPECT_EQ(next(), 0);
    EXPECT_STREQ(line, "c\n");
}

TEST_F(CfgLine, OfExactly98CharactersLeavesItsLineEndForTheNextCall) {
    open_text(std::string(98, 'a') + "\n");
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(length, 98);
    EXPECT_EQ(next(), 0);
    EXPECT_STREQ(line, "\n");
}

TEST_F(CfgLine, EndOfFileIsToldOneCallAfterTheLastLine) {
    open_text("last");  // no line end: this read meets the end
    EXPECT_EQ(next(), 0);
    EXPECT_STREQ(line, "last");
    EXPECT_EQ(is_eof, 0);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(is_eof, 1);
    EXPECT_EQ(length, 0);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(is_eof, 1);
}

TEST_F(CfgLine, EndOfFileBehindALineEndTakesOneEmptyReadMore) {
    open_text("last\n");
    EXPECT_EQ(next(), 0);
    EXPECT_STREQ(line, "last\n");
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(is_eof, 0);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(is_eof, 1);
}

TEST_F(CfgLine, OfADirectoryEndsAllTheSame) {
    stream = fopen("/data", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(next(), 0);
    EXPECT_STREQ(line, "");
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(is_eof, 1);
}

TEST_F(CfgLine, IsMeasuredUpToItsFirstNul) {
    open_text(std::string("ab\0cd\n", 6));
    EXPECT_EQ(next(), 0);
    EXPECT_EQ(length, 2);
}

TEST_F(CfgLine, RefusesEachMissingPointer) {
    open_text("a\n");
    const std::vector<std::string> refusal = {"pub_cfg_get_line()",
                                              "FILE-pub/cfg/cfg, LINE-*, FUNC-pub_cfg_get_line(), error_code=-101, "
                                              "errno=0"};
    errno = 0;
    EXPECT_EQ(pub_cfg_get_line(nullptr, line, 100, &length, &is_eof), -101);
    EXPECT_EQ(platform(), refusal);
    EXPECT_EQ(pub_cfg_get_line(stream, nullptr, 100, &length, &is_eof), -101);
    EXPECT_EQ(pub_cfg_get_line(stream, line, 100, nullptr, &is_eof), -101);
    EXPECT_EQ(pub_cfg_get_line(stream, line, 100, &length, nullptr), -101);
}

// ---- halves ----

struct split_case {
    const char *name;
    const char *line;
    const char *key;  // null: no pair
    const char *value;
};

static void PrintTo(const split_case &one, std::ostream *out) {
    *out << one.line;
}

static const split_case kSplits[] = {
    {"plain", "zr.tty.cmd=ttyCMD0", "zr.tty.cmd", "ttyCMD0"},
    {"blanks everywhere", "   zr.tty.cmd   =   ttyCMD0  \r\n", "zr.tty.cmd", "ttyCMD0"},
    {"line feed alone", "a=b\n", "a", "b"},
    {"mixed tail", "a=b \r \n\r\n", "a", "b"},
    {"blanks inside", "a b = c d", "a b", "c d"},
    {"first equals sign splits", "a=b=c", "a", "b=c"},
    {"two equals signs", "a==b", "a", "=b"},
    {"hash in the value", "a=b # c\n", "a", "b # c"},
    {"hash in the key", "a#=b", "a#", "b"},
    {"comment", "# a=b", nullptr, nullptr},
    {"comment behind blanks", "   #a=b", nullptr, nullptr},
    {"no equals sign", "zr.tty.cmd x\n", nullptr, nullptr},
    {"empty line", "", nullptr, nullptr},
    {"line end alone", "\n", nullptr, nullptr},
    {"tab is no blank", "\ta\t=\tb\t\n", "\ta\t", "\tb\t"},
    {"tab before a hash", "\t#a=b", "\t#a", "b"},
    {"no value", "a=\r\n", "a", ""},
    {"value of blanks", "a=   ", "a", ""},
    {"line end in front of the value", "a=\r\nb", "a", "\r\nb"},
    {"no key", "=b", "", "b"},
    {"key of blanks", "   = b", "", "b"},
    {"equals sign alone", "=", "", ""},
};

static std::string split_name(const ::testing::TestParamInfo<split_case> &one) {
    std::string name = one.param.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

class CfgSplit : public LogLinesTest, public ::testing::WithParamInterface<split_case> {};

TEST_P(CfgSplit, FallsIntoKeyAndValue) {
    const split_case &given = GetParam();
    char line[64];
    snprintf(line, sizeof(line), "%s", given.line);
    char *key = nullptr;
    char *value = nullptr;
    const int32_t result = pub_cfg_get_param_and_value(line, &key, &value);
    if (given.key == nullptr) {
        EXPECT_EQ(result, -104);
        EXPECT_STREQ(line, given.line);
        return;
    }
    EXPECT_EQ(result, 0);
    EXPECT_STREQ(key, given.key);
    EXPECT_STREQ(value, given.value);
    EXPECT_TRUE(key >= line && value < line + sizeof(line)) << "the results point into the line";
}

INSTANTIATE_TEST_SUITE_P(Lines, CfgSplit, ::testing::ValuesIn(kSplits), split_name);

class CfgSplitting : public LogLinesTest {};

TEST_F(CfgSplitting, NeverTouchesWhatStandsInFrontOfTheLine) {
    char text[] = "   =v";
    char *key = nullptr;
    char *value = nullptr;
    ASSERT_EQ(pub_cfg_get_param_and_value(text + 3, &key, &value), 0);  // the line begins with its "="
    EXPECT_EQ(memcmp(text, "   \0v", 5), 0);
    EXPECT_STREQ(key, "");
    EXPECT_STREQ(value, "v");
}

TEST_F(CfgSplitting, OverwritesEachBlankBehindTheKey) {
    char text[] = "a   =v";
    char *key = nullptr;
    char *value = nullptr;
    ASSERT_EQ(pub_cfg_get_param_and_value(text, &key, &value), 0);
    EXPECT_EQ(memcmp(text, "a\0\0\0\0v", 6), 0);
}

TEST_F(CfgSplitting, RefusesEachMissingPointer) {
    char text[] = "a=b";
    char *key = nullptr;
    char *value = nullptr;
    errno = 0;
    EXPECT_EQ(pub_cfg_get_param_and_value(nullptr, &key, &value), -101);
    const std::vector<std::string> refusal = {"pub_cfg_get_param_and_value()",
                                              "FILE-pub/cfg/cfg, LINE-*, FUNC-pub_cfg_get_param_and_value(), "
                                              "error_code=-101, errno=0"};
    EXPECT_EQ(platform(), refusal);
    EXPECT_EQ(pub_cfg_get_param_and_value(text, nullptr, &value), -101);
    EXPECT_EQ(pub_cfg_get_param_and_value(text, &key, nullptr), -101);
    EXPECT_STREQ(text, "a=b");
    EXPECT_EQ(file(), std::vector<std::string>{}) << "the shared library writes to the platform log alone";
}
