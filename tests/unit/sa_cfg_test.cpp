// The configuration record, with and without a configuration file.
#include "sa/sa-cfg/sa_cfg.h"

#include <string.h>
#include <unistd.h>

#include "tests/unit/log_lines.h"

static const char kPath[] = "/system/etc/zr-qel-sa.cfg";

class SaCfg : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        memset(&g_sa_cfg, 'x', sizeof(g_sa_cfg));  // of an earlier call
    }
    static void read_text(const std::string &text) {
        write_file(kPath, text);
        EXPECT_EQ(sa_cfg_init(), 0);
    }
};

TEST_F(SaCfg, KeepsBothSettings) {
    read_text("zr.tty.cmd = /dev/ttyX1\nzr.log.size = 77\n");
    EXPECT_STREQ(g_sa_cfg.tty_cmd_a, "/dev/ttyX1");
    EXPECT_EQ(g_sa_cfg.log_size_val, 77);
}

TEST_F(SaCfg, KeepsTheLeadingDigitsOfTheLastSize) {
    read_text("zr.log.size=12abc\n");
    EXPECT_EQ(g_sa_cfg.log_size_val, 12);
    read_text("zr.log.size=12\nzr.log.size=abc\n");
    EXPECT_EQ(g_sa_cfg.log_size_val, 0);
}

TEST_F(SaCfg, KeepsWhatItHasWhereNothingStandsBehindTheKey) {
    read_text("zr.log.size=77\nzr.tty.cmd=/dev/ttyX1\nzr.log.size=\nzr.log.size=  \r\nzr.tty.cmd=\n");
    EXPECT_EQ(g_sa_cfg.log_size_val, 77);
    EXPECT_STREQ(g_sa_cfg.tty_cmd_a, "/dev/ttyX1");
}

TEST_F(SaCfg, IsAllZeroWithoutAFile) {
    ASSERT_TRUE(unlink(kPath) == 0 || errno == ENOENT);
    EXPECT_EQ(sa_cfg_init(), 0);
    const struct sa_cfg_st zero = {};
    EXPECT_EQ(memcmp(g_sa_cfg.tty_cmd_a, zero.tty_cmd_a, sizeof(zero.tty_cmd_a)), 0);
    EXPECT_EQ(g_sa_cfg.log_size_val, 0);
}
