// Free space on /data at start-up: one file of the reserve is removed if less than 3 MiB are free.
#include <signal.h>

#include <algorithm>

#include "tests/support/agent.h"

static const char kReserve[] = "/data/.protect/";
static const uint64_t kLow = 3u << 20;
static const uint64_t kPage = 4096;  // what the diagnostic file takes between the rotation and the look at /data

class Protect : public AgentTest {
  protected:
    // A handset with this much free when the agent looks, and these files in the reserve.
    void boot_with(uint64_t available, const std::vector<std::string> &names) {
        desk_options options = quiet_options();
        options.agent = false;
        options.data_size = 8u << 20;
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
        for (const std::string &name : names) {
            ASSERT_TRUE(desk_make_dir(h, "/data/.protect"));
            ASSERT_TRUE(desk_write_file(h, kReserve + name, std::string(kPage, 'x'))) << desk_error();
        }
        ASSERT_TRUE(desk_fill_data(h, available + kPage)) << desk_error();
    }

    // Starts the agent, waits until it works and returns what protect_data logged.
    std::vector<std::string> start() {
        const desk_child agent = launch();
        EXPECT_TRUE(wait_listening(agent.pid));
        settle();
        const std::vector<std::string> lines = process_lines(agent.pid);
        const auto begin = std::find(lines.begin(), lines.end(), "protect_data()");
        const auto end = std::find(begin, lines.end(), "sa_cfg_init()");
        return std::vector<std::string>(begin, end);
    }
};

static std::string room(uint64_t available) {
    return "buffer.bavail:" + std::to_string(available / kPage) + " buffer.f_bsize:4096 low_size:3145728\n";
}

TEST_F(Protect, LeavesTheReserveAloneAtThreeMebibytes) {
    ASSERT_NO_FATAL_FAILURE(boot_with(kLow, {"a", "b"}));
    EXPECT_EQ(start(), (std::vector<std::string>{"protect_data()", room(kLow)}));
    EXPECT_EQ(desk_list(h, kReserve), (std::vector<std::string>{"a", "b"}));
}

TEST_F(Protect, RemovesTheGreatestNameJustBelow) {
    ASSERT_NO_FATAL_FAILURE(boot_with(kLow - kPage, {"9", "10", "B", "a"}));
    EXPECT_EQ(start(),
              (std::vector<std::string>{"protect_data()", room(kLow - kPage), "scan line /data/.protect/a\n",
                                        "ignore B\n", "ignore 9\n", "ignore 10\n", "ignore ..\n", "ignore .\n"}));
    EXPECT_EQ(desk_list(h, kReserve), (std::vector<std::string>{"10", "9", "B"}));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Protect, WritesNothingToTheDiagnosticFile) {
    ASSERT_NO_FATAL_FAILURE(boot_with(0x100000, {"a"}));
    start();
    EXPECT_EQ(desk_list(h, kReserve), std::vector<std::string>());
    const std::string text = desk_file_text(h, kSaLog);
    for (const char *part : {"protect", "scan line", "bavail", "ignore"}) {
        EXPECT_EQ(text.find(part), std::string::npos) << part;
    }
    EXPECT_NE(text.find("main sa_cfg_init ret_val[0]"), std::string::npos);
}

TEST_F(Protect, RemovesOneFileAStart) {
    ASSERT_NO_FATAL_FAILURE(boot_with(0x100000, {"1", "2", "3"}));
    for (const std::vector<std::string> &left :
         {std::vector<std::string>{"1", "2"}, std::vector<std::string>{"1"}, std::vector<std::string>{}}) {
        desk_child agent = launch();
        ASSERT_TRUE(wait_listening(agent.pid));
        EXPECT_EQ(desk_list(h, kReserve), left);
        ASSERT_TRUE(desk_kill(h, agent.pid, SIGTERM));
        EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    }
}

TEST_F(Protect, GoesOnWithoutAReserve) {
    ASSERT_NO_FATAL_FAILURE(boot_with(kLow - kPage, {}));
    EXPECT_EQ(start(), (std::vector<std::string>{"protect_data()", room(kLow - kPage),
                                                 "scandir() 2-No such file or directory\n"}));
}

TEST_F(Protect, SaysThatAnEmptyReserveHasNothingToGive) {
    ASSERT_NO_FATAL_FAILURE(boot_with(kLow - kPage, {}));
    ASSERT_TRUE(desk_make_dir(h, "/data/.protect"));
    EXPECT_EQ(start(), (std::vector<std::string>{"protect_data()", room(kLow - kPage),
                                                 "!!!!!!error, no file can be delete.", "ignore .\n"}));
    open_channel();
    EXPECT_EQ(ask("AT\r"), kOk);
}

TEST_F(Protect, KeepsHiddenFiles) {
    ASSERT_NO_FATAL_FAILURE(boot_with(kLow - kPage, {".keep"}));
    EXPECT_EQ(start(), (std::vector<std::string>{"protect_data()", room(kLow - kPage),
                                                 "!!!!!!error, no file can be delete.", "ignore ..\n", "ignore .\n"}));
    EXPECT_EQ(desk_list(h, kReserve), std::vector<std::string>{".keep"});
}

TEST_F(Protect, ReportsWhatItCannotRemove) {
    ASSERT_NO_FATAL_FAILURE(boot_with(kLow - kPage, {"a"}));
    ASSERT_TRUE(desk_make_dir(h, "/data/.protect/z"));
    EXPECT_EQ(start(),
              (std::vector<std::string>{"protect_data()", room(kLow - kPage), "scan line /data/.protect/z\n",
                                        "sa protect_data rm /data/.protect/z caught errno:21 err:Is a directory\n",
                                        "ignore a\n", "ignore ..\n", "ignore .\n"}));
    EXPECT_EQ(desk_list(h, kReserve), (std::vector<std::string>{"a", "z"}));
}

TEST_F(Protect, CutsAPathThatIsTooLong) {
    const std::string name(250, 'n');
    ASSERT_NO_FATAL_FAILURE(boot_with(kLow - kPage, {name}));
    const std::string path = (kReserve + name).substr(0, 255);
    EXPECT_EQ(start(), (std::vector<std::string>{
                           "protect_data()", room(kLow - kPage), "scan line " + path + "\n",
                           "sa protect_data rm " + path + " caught errno:2 err:No such file or directory\n",
                           "ignore ..\n", "ignore .\n"}))
        << "nothing is said of the cut";
    EXPECT_EQ(desk_list(h, kReserve), std::vector<std::string>{name});
}
