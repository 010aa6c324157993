// Arguments of handlers: quoted texts, numbers and switches, with their limits.
#include "sa/sa-handle/command/arguments.h"

#include <errno.h>
#include <string.h>

#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

// ---- quoted texts ----

struct quoted_case {
    const char *arg;
    const char *text;  // taken into room for 8 bytes
    const char *rest;  // null: refused
};

static const quoted_case kQuoted[] = {
    {"\"zr-elog\"\r", "zr-elog", "\"\r"},
    {"\"a\",1\r", "a", "\",1\r"},
    {"\"a\"b\"", "a", "\"b\""},
    {"\" a \" ", " a ", "\" "},
    {"\"a\rb\"\r", "a\rb", "\"\r"},
    {"\"open", "open", ""},
    {"\"1234567\"", "1234567", "\""},
    {"\"12345678\"\r", "1234567", "8\"\r"},
    {"\"12345678", "1234567", "8"},
    {"\"\"", "", nullptr},
    {"\"", "", nullptr},
    {"", "", nullptr},
    {"\r", "", nullptr},
    {"name", "", nullptr},
    {" \"name\"", "", nullptr},
    {"'name'", "", nullptr},
};

TEST(TakeQuoted, TakesTheTextBetweenTheFirstTwoQuotes) {
    for (const quoted_case &given : kQuoted) {
        char text[9];
        memset(text, 'x', sizeof(text));
        const char *rest = sa_take_quoted(given.arg, text, 8);
        EXPECT_STREQ(text, given.text) << given.arg;
        EXPECT_EQ(text[8], 'x') << given.arg;
        if (given.rest == nullptr) {
            EXPECT_EQ(rest, nullptr) << given.arg;
        } else {
            ASSERT_NE(rest, nullptr) << given.arg;
            EXPECT_STREQ(rest, given.rest) << given.arg;
        }
    }
}

// ---- numbers ----

TEST(TakeNumber, ReadsDecimalNumbers) {
    const std::vector<std::pair<const char *, int32_t>> cases = {
        {"0", 0},
        {"1\r", 1},
        {"  +7x", 7},
        {"-3 ", -3},
        {"\t\n12,5", 12},
        {"007", 7},
        {"0x10", 0},
        {"2147483647", INT32_MAX},
        {"-2147483648", INT32_MIN},
    };
    for (const auto &given : cases) {
        int32_t value = 4711;
        EXPECT_TRUE(sa_take_number(given.first, &value)) << given.first;
        EXPECT_EQ(value, given.second) << given.first;
    }
}

TEST(TakeNumber, RefusesWhatIsNone) {
    for (const char *arg : {"", "\r", "x1", "-", "+ 1", "\"1\"", "2147483648", "-2147483649", "99999999999999999999"}) {
        int32_t value = 4711;
        EXPECT_FALSE(sa_take_number(arg, &value)) << arg;
        EXPECT_EQ(value, 4711) << arg;
    }
}

TEST(TakeSwitch, KnowsOnAndOff) {
    uint8_t value = 9;
    EXPECT_TRUE(sa_take_switch("1\r", &value));
    EXPECT_EQ(value, 1);
    EXPECT_TRUE(sa_take_switch(" 0", &value));
    EXPECT_EQ(value, 0);
    for (const char *arg : {"2", "-1", "256", "257", "on", "", "\r", "4294967297"}) {
        value = 9;
        EXPECT_FALSE(sa_take_switch(arg, &value)) << arg;
        EXPECT_EQ(value, 9) << arg;
    }
}

// ---- calls ----

class BadCall : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        memset(&req, 0, sizeof(req));
        req.len = 1;
        errno = 0;
    }
    bool is_bad(int32_t fd, const struct sa_msg_st *req_ptr, const struct sa_msg_st *rsp_ptr, const char *arg) {
        return sa_is_bad_call_of("handle_sa_x_set", 1, fd, req_ptr, rsp_ptr, arg);
    }
    static lines report(const char *tests) {
        return {"FILE-sa/sa-handle, LINE-*, FUNC-handle_sa_x_set(), error_code=-101, errno=0", tests};
    }
    struct sa_msg_st req;
    struct sa_msg_st rsp;
};

TEST_F(BadCall, IsNoneWithEverythingThere) {
    EXPECT_FALSE(is_bad(1, &req, &rsp, ""));
    EXPECT_EQ(platform(), lines{});
}

TEST_F(BadCall, NamesTheTestThatFailed) {
    EXPECT_TRUE(is_bad(0, &req, &rsp, ""));
    EXPECT_EQ(platform(), report("1, 0, 0, 0, 0"));
    forget();
    errno = 0;
    EXPECT_TRUE(is_bad(1, &req, nullptr, ""));
    EXPECT_EQ(platform(), report("0, 0, 0, 1, 0"));
    forget();
    errno = 0;
    EXPECT_TRUE(is_bad(1, &req, &rsp, nullptr));
    EXPECT_EQ(platform(), report("0, 0, 0, 0, 1"));
    forget();
    errno = 0;
    req.len = 0;
    EXPECT_TRUE(is_bad(1, &req, &rsp, ""));
    EXPECT_EQ(platform(), report("0, 0, 1, 0, 0"));
    EXPECT_TRUE(is_bad(1, nullptr, &rsp, ""));
    EXPECT_EQ(file(), lines{});
}
