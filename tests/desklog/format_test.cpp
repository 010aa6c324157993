// How logcat prints entries: layouts, time stamps, the splitting of texts, safe characters, values of events.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>

#include "handset/logcat/event_tags.h"
#include "handset/logcat/format.h"
#include "handset/logd/event_values.h"
#include "handset/logd/wire.h"

static constexpr uint32_t kMoment = 1709211845;  // 2024-02-29 13:04:05 UTC

struct LogFormat : ::testing::Test {
    log_format format;
    log_print entry;

    LogFormat() {
        setenv("TZ", "UTC0", 1);
        tzset();
        entry.sec = kMoment;
        entry.nsec = 123456789;
        entry.pid = 42;
        entry.tid = 123456;
        entry.priority = 3;
        entry.tag = "zr-tag";
        entry.text = "text";
    }
    std::string print() {
        return log_format_entry(format, entry);
    }
    std::string print_text(const std::string &text) {
        entry.text = text;
        return print();
    }
    void use(const char *name) {
        EXPECT_TRUE(log_format_add(name, &format)) << name;
    }
};

TEST_F(LogFormat, ThreadtimeIsTheDefault) {
    EXPECT_EQ(print(), "02-29 13:04:05.123    42 123456 D zr-tag  : text\n");
}

TEST_F(LogFormat, LayoutsAndAdditionsCombine) {
    use("threadtime");
    use("usec");
    use("printable");
    EXPECT_EQ(print_text("a\\b"), "02-29 13:04:05.123456    42 123456 D zr-tag  : a\\\\b\n");
    use("nsec");
    use("time");
    EXPECT_EQ(print_text("t"), "02-29 13:04:05.123456789 D/zr-tag  (   42): t\n");
    use("brief");
    EXPECT_EQ(print(), "D/zr-tag  (   42): t\n");
    use("process");
    EXPECT_EQ(print(), "D(   42) t  (zr-tag)\n");
    use("tag");
    EXPECT_EQ(print(), "D/zr-tag  : t\n");
    use("thread");
    EXPECT_EQ(print(), "D(   42:123456) t\n");
    use("raw");
    EXPECT_EQ(print(), "t\n");
    EXPECT_FALSE(log_format_add("threadtimes", &format));
    EXPECT_FALSE(log_format_add("", &format));
}

TEST_F(LogFormat, LocalTimeFollowsTheZone) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    entry.sec = kMoment + 150 * 86400;  // in summer, 2024-07-28
    EXPECT_EQ(print().substr(0, 18), "07-28 15:04:05.123");
}

TEST_F(LogFormat, FractionsKeepTheirZeros) {
    use("usec");
    entry.nsec = 1999;
    EXPECT_EQ(print().substr(0, 21), "02-29 13:04:05.000001");
}

TEST_F(LogFormat, TagsAndPriorities) {
    static const char letters[] = "??VDIWEFS?";
    use("brief");
    for (int priority = 0; priority < 10; priority++) {
        entry.priority = priority;
        EXPECT_EQ(print()[0], letters[priority]) << priority;
    }
    entry.tag = "exactly8";
    EXPECT_EQ(print(), "?/exactly8(   42): text\n");
    entry.tag = "longer-than-8";
    EXPECT_EQ(print(), "?/longer-than-8(   42): text\n");
    entry.tag = "";
    EXPECT_EQ(print(), "?/        (   42): text\n");
}

TEST_F(LogFormat, EveryLineOfATextHasThePrefix) {
    use("tag");
    const std::string p = "D/zr-tag  : ";
    EXPECT_EQ(print_text(""), p + "\n");
    EXPECT_EQ(print_text("\n"), p + "\n");
    EXPECT_EQ(print_text("a\n"), p + "a\n");
    EXPECT_EQ(print_text("a\nb"), p + "a\n" + p + "b\n");
    EXPECT_EQ(print_text("a\nb\n"), p + "a\n" + p + "b\n");
    EXPECT_EQ(print_text("a\n\nb"), p + "a\n" + p + "\n" + p + "b\n");
    EXPECT_EQ(print_text("a\n\n"), p + "a\n" + p + "\n");
    EXPECT_EQ(print_text("\na"), p + "\n" + p + "a\n");
}

TEST_F(LogFormat, PrefixIsCutAt127Bytes) {
    use("tag");
    entry.tag = std::string(123, 't');
    EXPECT_EQ(print(), "D/" + entry.tag + ": text\n");
    entry.tag = std::string(124, 't');
    EXPECT_EQ(print(), "D/" + entry.tag + ":text\n");
    entry.tag = std::string(500, 't');
    EXPECT_EQ(print(), "D/" + std::string(125, 't') + "text\n");
}

TEST_F(LogFormat, PrintableEscapesWhatATerminalWouldObey) {
    EXPECT_EQ(log_printable("\a\b\v\f\r\\"), "\\a\\b\\v\\f\\r\\\\");
    EXPECT_EQ(log_printable("tab\tstays"), "tab\tstays");
    EXPECT_EQ(log_printable(std::string("\x01\x1b\x1f\0", 4)), "\\x01\\x1B\\x1F\\x00");
    EXPECT_EQ(log_printable("\x7f"), "\x7f");
}

TEST_F(LogFormat, PrintableKeepsGoodCharactersAndEscapesBadOnes) {
    const std::string good = "\xc2\x80 \xc3\xa9 \xdf\xbf \xe0\xa0\x80 \xe2\x82\xac \xf0\x90\x80\x80 \xf4\x8f\xbf\xbf";
    EXPECT_EQ(log_printable(good), good);
    EXPECT_EQ(log_printable("\xff\xfe"), "\\xFF\\xFE");
    EXPECT_EQ(log_printable("\xc3"), "\\xC3");
    EXPECT_EQ(log_printable("\xc3("), "\\xC3(");
    EXPECT_EQ(log_printable("\xe2\x82"), "\\xE2\\x82");
    EXPECT_EQ(log_printable("\xc0\xaf"), "\\xC0\\xAF");
    EXPECT_EQ(log_printable("\xe0\x9f\xbf"), "\\xE0\\x9F\\xBF");
    EXPECT_EQ(log_printable("\xed\xa0\x80"), "\\xED\\xA0\\x80");
    EXPECT_EQ(log_printable("\xf0\x8f\xbf\xbf"), "\\xF0\\x8F\\xBF\\xBF");
    EXPECT_EQ(log_printable("\xf4\x90\x80\x80"), "\\xF4\\x90\\x80\\x80");
    EXPECT_EQ(log_printable("\x80z"), "\\x80z");
}

static std::string values_text(const std::string &values, bool is_whole = true) {
    std::string text;
    EXPECT_EQ(log_event_text(reinterpret_cast<const unsigned char *>(values.data()), values.size(), &text), is_whole);
    return text;
}

TEST_F(LogFormat, EventValuesAsText) {
    EXPECT_EQ(values_text(std::string("\0\xff\xff\xff\xff", 5)), "-1");
    EXPECT_EQ(values_text(std::string("\1\0\0\0\0\1\0\0\0", 9)), "4294967296");
    EXPECT_EQ(values_text(std::string("\2\3\0\0\0abc", 8)), "abc");
    EXPECT_EQ(values_text(std::string("\4\0\0\xc0\x3f", 5)), "1.500000");
    EXPECT_EQ(values_text(std::string("\3\0", 2)), "[]");
    EXPECT_EQ(values_text(std::string("\3\2\0\5\0\0\0\3\1\2\1\0\0\0z", 15)), "[5,[z]]");
    EXPECT_EQ(values_text(""), "");
}

TEST_F(LogFormat, DamagedEventValuesEndTheText) {
    EXPECT_EQ(values_text(std::string("\0\1\0\0", 4), false), "");
    EXPECT_EQ(values_text(std::string("\2\xff\xff\xff\xff"
                                      "ab",
                                      7),
                          false),
              "ab");
    EXPECT_EQ(values_text(std::string("\3\2\0\5\0\0\0", 7), false), "[5,");
    EXPECT_EQ(values_text(std::string("\7", 1), false), "");
    EXPECT_EQ(values_text(std::string(2000, '\3'), false), "[[[[[[[[");
}

TEST_F(LogFormat, PayloadsAreTakenApartWithinTheirBounds) {
    const std::string whole("\4tag\0text\0more", 14);
    log_text text = {};
    const auto *bytes = reinterpret_cast<const unsigned char *>(whole.data());
    ASSERT_TRUE(log_split_text(bytes, whole.size(), &text));
    EXPECT_EQ(std::string(text.tag, text.tag_length), "tag");
    EXPECT_EQ(std::string(text.text, text.text_length), "text");
    ASSERT_TRUE(log_split_text(bytes, 7, &text));
    EXPECT_EQ(std::string(text.text, text.text_length), "te");
    ASSERT_TRUE(log_split_text(bytes, 5, &text));
    EXPECT_EQ(text.text_length, 0u);
    EXPECT_FALSE(log_split_text(bytes, 4, &text));
    EXPECT_FALSE(log_split_text(bytes, 1, &text));
    EXPECT_FALSE(log_split_text(bytes, 0, &text));
    log_event event = {};
    EXPECT_FALSE(log_split_event(bytes, 3, &event));
    EXPECT_TRUE(log_split_event(bytes, 4, &event));
    EXPECT_EQ(event.values_length, 0u);
}
