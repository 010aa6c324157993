// The configuration file: which lines become settings.
#include <algorithm>

#include "tests/support/agent.h"

static const char kConfig[] = "/system/etc/zr-qel-sa.cfg";

// What the agent made of a file.
struct settings {
    std::vector<std::string> messages;  // its "[cfg]" texts, in order
    std::string channel;                // name under which it publishes the command channel
};

class Config : public AgentTest {
  protected:
    settings of(const std::string &text) {
        desk_options options = quiet_options();
        options.files.push_back({kConfig, text, "", 0644, 0, 0});
        return booted(options);
    }

    settings booted(const desk_options &options) {
        settings found;
        boot_only(options);
        if (h == nullptr) {
            return found;
        }
        EXPECT_TRUE(wait_listening(desk_agent_pid(h)));
        settle();
        const std::string name = "sa_handle_init m_pts_mapping_name_a[";
        for (const std::string &line : platform_lines()) {
            if (line.compare(0, 5, "[cfg]") == 0) {
                found.messages.push_back(line);
            }
            if (line.compare(0, name.size(), name) == 0) {
                found.channel = line.substr(name.size(), line.size() - name.size() - 1);
            }
        }
        EXPECT_EQ(count_lines(file_lines(), "main sa_cfg_init ret_val[0]"), 1);
        return found;
    }
};

using messages = std::vector<std::string>;

TEST_F(Config, TrimsBlanksAndTheLineEnd) {
    const settings found = of("   zr.tty.cmd   =   /dev/ttyX1  \r\n  zr.log.size=   77   \r\n");
    EXPECT_EQ(found.messages, (messages{"[cfg]zr.tty.cmd = /dev/ttyX1", "[cfg]zr.log.size = 77"}));
    EXPECT_EQ(found.channel, "/dev/ttyX1");
    channel = desk_open_tty(h, "/dev/ttyX1");
    ASSERT_GE(channel, 0) << desk_error();
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Config, ReadsALastLineWithoutANewline) {
    EXPECT_EQ(of("zr.log.size=5\nzr.tty.cmd=/dev/ttyX1").channel, "/dev/ttyX1");
}

TEST_F(Config, SkipsCommentsAndLinesWithoutAnEqualsSign) {
    const settings found =
        of("#zr.tty.cmd=/dev/ttyA\n"
           "   # zr.tty.cmd=/dev/ttyB\n"
           "zr.tty.cmd /dev/ttyC\n"
           "\n"
           "zr.tty.cmd=/dev/ttyX1\n"
           "#zr.tty.cmd=/dev/ttyD\n");
    EXPECT_EQ(found.messages, messages{"[cfg]zr.tty.cmd = /dev/ttyX1"});
}

TEST_F(Config, TakesTheLastOfSeveral) {
    const settings found = of("zr.tty.cmd=/dev/ttyLONGER\nzr.tty.cmd=/dev/ttyX1\n");
    EXPECT_EQ(found.messages, (messages{"[cfg]zr.tty.cmd = /dev/ttyLONGER", "[cfg]zr.tty.cmd = /dev/ttyX1"}));
    EXPECT_EQ(found.channel, "/dev/ttyX1");
}

TEST_F(Config, ConvertsLeadingDigits) {
    const settings found = of("zr.log.size=12abc\nzr.log.size=abc\nzr.log.size=-7\nzr.log.size=010\n");
    EXPECT_EQ(found.messages, (messages{"[cfg]zr.log.size = 12", "[cfg]zr.log.size = 0", "[cfg]zr.log.size = -7",
                                        "[cfg]zr.log.size = 10"}));
}

TEST_F(Config, IgnoresEmptyKeysAndValues) {
    const settings found =
        of("zr.tty.cmd=/dev/ttyX1\n"
           "zr.tty.cmd=\n"
           "zr.tty.cmd =   \r\n"
           "zr.log.size=\n"
           "=/dev/ttyA\n"
           "   =/dev/ttyB\n"
           "==\n"
           "=\n");
    EXPECT_EQ(found.messages, messages{"[cfg]zr.tty.cmd = /dev/ttyX1"});
    EXPECT_EQ(found.channel, "/dev/ttyX1");
}

TEST_F(Config, TakesAnEqualsSignAtTheVeryStartForAnEmptyKey) {
    const settings found = of("=zr.tty.cmd=/dev/ttyA\nzr.tty.cmd=/dev/ttyX1\n");
    EXPECT_EQ(found.messages, messages{"[cfg]zr.tty.cmd = /dev/ttyX1"});
}

TEST_F(Config, KeepsWhatStandsInsideAValue) {
    const settings found = of("zr.tty.cmd = /dev/a b#c=d # e\n");
    EXPECT_EQ(found.messages, messages{"[cfg]zr.tty.cmd = /dev/a b#c=d # e"});
    EXPECT_TRUE(desk_wait_path(h, "/dev/a b#c=d # e"));
}

TEST_F(Config, ComparesKeysExactly) {
    const settings found =
        of("ZR.TTY.CMD=/dev/ttyA\nzr.tty.cmdx=/dev/ttyB\nzr.tty=/dev/ttyC\n\tzr.tty.cmd=/dev/ttyD\n"
           "zr.tty.cmd\t=/dev/ttyE\nzr.other=1\n");
    EXPECT_EQ(found.messages, messages{});
    EXPECT_EQ(found.channel, "");
}

TEST_F(Config, KeepsTabsAroundAValue) {
    EXPECT_EQ(of("zr.tty.cmd=\t/dev/ttyA\t\n").messages, messages{"[cfg]zr.tty.cmd = \t/dev/ttyA\t"});
}

TEST_F(Config, ReadsALongLineInPiecesOf98Characters) {
    const std::string setting = "zr.tty.cmd=/dev/ttyX1";
    const std::string rest(150 - 98 - setting.size(), ' ');
    EXPECT_EQ(of(std::string(98, 'x') + setting + rest + "\n").channel, "/dev/ttyX1");
    end();
    EXPECT_EQ(of("#" + std::string(97, 'x') + setting + rest + "\n").channel, "/dev/ttyX1");
    end();
    EXPECT_EQ(of(std::string(97, 'x') + setting + rest + "\n").channel, "");
    end();
    EXPECT_EQ(of(std::string(99, 'x') + setting + rest + "\n").channel, "");
    end();
    // The 98th character is the last of the value's first piece.
    EXPECT_EQ(of(std::string(98 - 12, ' ') + "zr.log.size=12345\n").messages, messages{});
    end();
    EXPECT_EQ(of(std::string(98 - 14, ' ') + "zr.log.size=12345\n").messages, messages{"[cfg]zr.log.size = 12"});
}

TEST_F(Config, CutsAChannelNameAt27Characters) {
    const settings fitting = of("zr.tty.cmd=/dev/tty4567890123456789012\n");
    EXPECT_EQ(fitting.messages, messages{"[cfg]zr.tty.cmd = /dev/tty4567890123456789012"});
    end();
    const settings longer = of("zr.tty.cmd=/dev/tty456789012345678901278901\n");
    EXPECT_EQ(longer.channel, "/dev/tty4567890123456789012");
    channel = desk_open_tty(h, "/dev/tty4567890123456789012");
    ASSERT_GE(channel, 0) << desk_error();
    EXPECT_EQ(ask("AT\r"), kOk);
}

// ---- no file, no usable file

static const char kReport[] = "FILE-sa/sa-cfg, LINE-";

// Replaces the line number, which is the program's own business.
static std::string without_line(const std::string &text) {
    const size_t begin = text.find("LINE-");
    const size_t end = text.find(',', begin);
    return text.compare(0, sizeof(kReport) - 1, kReport) == 0 ? text.substr(0, begin + 5) + "N" + text.substr(end)
                                                              : text;
}

TEST_F(Config, MissingFileLeavesTheAgentWithoutAChannel) {
    desk_options options = quiet_options();
    options.config = false;
    const settings found = booted(options);
    EXPECT_EQ(found.messages, messages{});
    EXPECT_EQ(found.channel, "");
    std::vector<std::string> lines;
    for (const std::string &line : platform_lines()) {
        lines.push_back(without_line(line));
    }
    const auto at = std::find(lines.begin(), lines.end(), "parse_sa_cfg()");
    ASSERT_GE(lines.end() - at, 6);
    EXPECT_EQ(std::vector<std::string>(at - 1, at + 6),
              (messages{"sa_cfg_init()", "parse_sa_cfg()", "sys call: fopen() failed! errno = 2",
                        "FILE-sa/sa-cfg, LINE-N, FUNC-parse_sa_cfg(), error_code=-1, errno=2",
                        "FILE-sa/sa-cfg, LINE-N, FUNC-parse_sa_cfg(), error_code=-118, errno=2",
                        "fail to open file: /system/etc/zr-qel-sa.cfg", "sa_handle_init()"}));
}

TEST_F(Config, DirectoryInItsPlaceIsReadToItsEnd) {
    desk_options options = quiet_options();
    options.config = false;
    options.files.push_back({std::string(kConfig) + "/inside", "zr.tty.cmd=/dev/ttyX1\n", "", 0644, 0, 0});
    const settings found = booted(options);
    EXPECT_EQ(found.messages, messages{});
    EXPECT_EQ(found.channel, "");
}

TEST_F(Config, EmptyFileIsNoError) {
    EXPECT_EQ(of("").messages, messages{});
}
