// Rotation of the diagnostic file: the files after each start.
#include <algorithm>
#include <map>

#include "tests/support/agent.h"

static const char kDirectory[] = "/data/local/log";

static std::string generation(int number) {
    return number == 0 ? kSaLog : std::string(kSaLog) + "." + std::to_string(number);
}

// The agent's starts in one handset, each ended early by -h: the rotation comes before the options.
class Rotation : public AgentTest {
  protected:
    void boot_without_agent(bool log_dir = true) {
        desk_options options = quiet_options();
        options.agent = false;
        options.log_dir = log_dir;
        boot_only(options);
    }

    // Clears the directory and puts these generations there, 0 being the live file, each with a content of its own.
    void put(const std::vector<int> &numbers) {
        for (const std::string &name : desk_list(h, kDirectory)) {
            ASSERT_TRUE(desk_remove(h, kDirectory + std::string("/") + name));
        }
        for (int number : numbers) {
            ASSERT_TRUE(desk_write_file(h, generation(number), content(number), 0600));
        }
    }

    // A directory that cannot be removed, and takes no other name's place.
    void put_directory(int number) {
        ASSERT_TRUE(desk_make_dir(h, generation(number)));
        ASSERT_TRUE(desk_write_file(h, generation(number) + "/full", ""));
    }

    static std::string content(int number) {
        return "former " + std::to_string(number) + "\n";
    }

    // Runs the agent and returns the texts of its rotation.
    std::vector<std::string> rotate() {
        const size_t before = desk_log(h, "zr-qel-sa").size();
        EXPECT_EQ(run({"/system/bin/zr-qel-sa", "-h"}).status, 0);
        settle();
        const std::vector<desk_log_entry> log = desk_log(h, "zr-qel-sa");
        std::vector<std::string> lines;
        for (size_t i = before; i < log.size(); i++) {
            if (log[i].text.compare(0, 14, "update_sa_logs") == 0) {
                lines.push_back(log[i].text);
            }
        }
        return lines;
    }

    std::map<std::string, std::string> files() {
        std::map<std::string, std::string> texts;
        for (const std::string &name : desk_list(h, kDirectory)) {
            texts[name] = desk_file_text(h, kDirectory + std::string("/") + name);
        }
        return texts;
    }
};

// What the texts of a rotation are when these generations exist and nothing fails; the stream's address is cut off.
static std::vector<std::string> expected_texts(const std::vector<int> &numbers) {
    std::vector<std::string> texts = {"update_sa_logs()", "update_sa_logs log_file_old[/data/local/log/sa.log.5]"};
    for (int number = 4; number >= 1; number--) {
        if (std::find(numbers.begin(), numbers.end(), number) != numbers.end()) {
            texts.push_back("update_sa_logs [" + std::to_string(number + 1) + "] log_file_old[" + generation(number) +
                            "] log_file_new[" + generation(number + 1) + "]");
        }
    }
    texts.push_back("update_sa_logs open(/data/local/log/sa.log) fp[0x");
    return texts;
}

static std::vector<std::string> without_address(std::vector<std::string> texts) {
    for (std::string &text : texts) {
        const size_t address = text.find("fp[0x");
        text.resize(address == std::string::npos ? text.size() : address + 5);
    }
    return texts;
}

TEST_F(Rotation, MovesEveryMixOfGenerationsOneOn) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    for (unsigned mix = 0; mix < 64; mix++) {
        std::vector<int> numbers;
        std::map<std::string, std::string> expected;
        for (int number = 0; number <= 5; number++) {
            if ((mix >> number & 1) == 0) {
                continue;
            }
            numbers.push_back(number);
            if (number < 5) {
                expected["sa.log." + std::to_string(number + 1)] = content(number);
            }
        }
        SCOPED_TRACE(::testing::PrintToString(numbers));
        ASSERT_NO_FATAL_FAILURE(put(numbers));
        EXPECT_EQ(without_address(rotate()), expected_texts(numbers));

        std::map<std::string, std::string> found = files();
        EXPECT_EQ(found["sa.log"].find("former"), std::string::npos);
        EXPECT_EQ(desk_owner(h, kSaLog), "0644 2000:1007");
        found.erase("sa.log");
        EXPECT_EQ(found, expected);
    }
}

TEST_F(Rotation, KeepsOwnerAndModeOfWhatItMoves) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_NO_FATAL_FAILURE(put({}));
    ASSERT_TRUE(desk_write_file(h, generation(0), "live", 0604, 5, 6));
    ASSERT_TRUE(desk_write_file(h, generation(2), "second", 0640, 7, 8));
    rotate();
    EXPECT_EQ(desk_owner(h, generation(1)), "0604 5:6");
    EXPECT_EQ(desk_owner(h, generation(3)), "0640 7:8");
}

TEST_F(Rotation, ComesBeforeTheFirstLine) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_NO_FATAL_FAILURE(put({0}));
    rotate();
    ASSERT_FALSE(file_lines().empty());
    EXPECT_EQ(file_lines()[0].compare(0, 9, "main pid["), 0) << file_lines()[0];
    EXPECT_EQ(desk_file_text(h, generation(1)), content(0));
}

TEST_F(Rotation, HappensAtEveryBootAndKeepsSixFiles) {
    ASSERT_NO_FATAL_FAILURE(boot());
    std::string last;
    for (int boots = 1; boots <= 6; boots++) {
        ASSERT_EQ(ask("AT\r"), kOk);
        ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop req[AT\r] ret_val[0]"));
        hang_up();
        ASSERT_TRUE(desk_reboot(h, true)) << desk_error();
        ASSERT_TRUE(wait_listening(desk_agent_pid(h)));
        EXPECT_NE(desk_file_text(h, generation(1)).find("sa_handle_read_cmd_loop req[AT\r] ret_val[0]\n"),
                  std::string::npos);
        if (boots > 1) {
            EXPECT_EQ(desk_file_text(h, generation(2)), last);
        }
        last = desk_file_text(h, generation(1));
        open_channel();
    }
    EXPECT_EQ(desk_list(h, kDirectory),
              (std::vector<std::string>{"sa.log", "sa.log.1", "sa.log.2", "sa.log.3", "sa.log.4", "sa.log.5"}));
}

TEST_F(Rotation, GoesOnWhenTheOldestCannotBeRemoved) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_NO_FATAL_FAILURE(put({0, 4}));
    ASSERT_NO_FATAL_FAILURE(put_directory(5));
    EXPECT_EQ(
        without_address(rotate()),
        (std::vector<std::string>{
            "update_sa_logs()", "update_sa_logs log_file_old[/data/local/log/sa.log.5]",
            "update_sa_logs remove errno[39-Directory not empty]",
            "update_sa_logs [5] log_file_old[/data/local/log/sa.log.4] log_file_new[/data/local/log/sa.log.5]",
            "update_sa_logs rename errno[21-Is a directory]", "update_sa_logs open(/data/local/log/sa.log) fp[0x"}));
    EXPECT_EQ(desk_file_text(h, generation(4)), content(4));
    EXPECT_EQ(desk_file_text(h, generation(1)), content(0));
    EXPECT_EQ(desk_owner(h, kSaLog), "0644 2000:1007");
}

TEST_F(Rotation, AppendsToALiveFileThatCannotBeMoved) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent());
    ASSERT_NO_FATAL_FAILURE(put({0}));
    for (int number = 1; number <= 5; number++) {
        ASSERT_NO_FATAL_FAILURE(put_directory(number));
    }
    const std::vector<std::string> texts = rotate();
    EXPECT_EQ(count_lines(texts, "update_sa_logs rename errno[39-Directory not empty]"), 4);
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), "update_sa_logs rename errno[21-Is a directory]");
    const std::string text = desk_file_text(h, kSaLog);
    EXPECT_EQ(text.compare(0, content(0).size(), content(0)), 0);
    EXPECT_NE(text.find("]main pid["), std::string::npos);
    EXPECT_EQ(desk_owner(h, kSaLog), "0644 2000:1007");
}

TEST_F(Rotation, WithoutItsDirectoryReportsAndGoesOn) {
    ASSERT_NO_FATAL_FAILURE(boot_without_agent(false));
    EXPECT_EQ(rotate(),
              (std::vector<std::string>{"update_sa_logs()", "update_sa_logs log_file_old[/data/local/log/sa.log.5]",
                                        "update_sa_logs open(/data/local/log/sa.log) fp[(nil)]",
                                        "update_sa_logs chown error[2-No such file or directory]",
                                        "update_sa_logs chmod error[2-No such file or directory]"}));
    EXPECT_FALSE(desk_exists(h, kDirectory));
}
