// What sa-host tells about itself: help, the manual, completion, corrections of a mistyped word, its version.
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "tests/host/support.h"

namespace {

// First words of the lines of the summary between two headings: the sub-commands.
words listed_commands() {
    std::istringstream summary(host_run({"--help"}).out);
    words found;
    bool is_list = false;
    for (std::string line; std::getline(summary, line);) {
        is_list = line == "Requests of the agent:" || line == "Others:" || (is_list && !line.empty());
        if (is_list && line.compare(0, 2, "  ") == 0) {
            found.push_back(line.substr(2, line.find(' ', 2) - 2));
        }
    }
    return found;
}

// The long options that a help text lists.
std::set<std::string> listed_options(const std::string &text) {
    std::set<std::string> found;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.compare(0, 2, "  ") == 0 ? line.find("--") : std::string::npos;
        if (at != std::string::npos && at < 8) {
            found.insert(line.substr(at, line.find_first_of(" ,", at) - at));
        }
    }
    return found;
}

std::string manual() {
    std::ifstream file(SOURCE_DIR "/docs/sa-host.1");
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(Help, EverySubCommandHasItsPage) {
    const words commands = listed_commands();
    ASSERT_GT(commands.size(), 15u);
    for (const std::string &word : commands) {
        const host_result page = host_run({word, "--help"});
        EXPECT_EQ(page.status, 0) << word;
        EXPECT_EQ(page.err, "") << word;
        EXPECT_EQ(page.out.compare(0, 15 + word.size(), "Usage: sa-host " + word), 0) << page.out;
        EXPECT_EQ(host_run({"help", word}).out, page.out);
        for (const std::string &option : listed_options(page.out)) {
            EXPECT_NE(manual().find("Fl -" + option.substr(2)), std::string::npos)
                << option << " of " << word << " is not in the manual";
        }
        EXPECT_NE(manual().find(".It Cm " + word), std::string::npos) << word << " is not in the manual";
    }
}

TEST(Help, OptionsOfAllSubCommandsAreInTheManual) {
    const std::set<std::string> options = listed_options(host_run({"--help"}).out);
    EXPECT_EQ(options.count("--timeout"), 1u);
    for (const std::string &option : options) {
        EXPECT_NE(manual().find("Fl -" + option.substr(2)), std::string::npos) << option << " is not in the manual";
    }
}

TEST(Help, VersionIsTheProjects) {
    const host_result version = host_run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "sa-host " PROJECT_VERSION "\n");
    EXPECT_EQ(host_run({"query", "-V"}).out, version.out);
}

TEST(Help, AMistypedWordGetsAnAdvice) {
    static const struct {
        words arguments;
        const char *advice;
    } rows[] = {
        {{"qeury", "x"}, "Did you mean query?"},
        {{"autostrat"}, "Did you mean autostart?"},
        {{"save", "x"}, "Did you mean save-log?"},
        {{"query", "--jsno", "x"}, "Did you mean --json?"},
        {{"--rooot=/", "query", "x"}, "Did you mean --root?"},
    };
    for (const auto &row : rows) {
        const host_result result = host_run(row.arguments);
        EXPECT_EQ(result.status, 3) << row.advice;
        EXPECT_NE(result.err.find(row.advice), std::string::npos) << result.err;
    }
    EXPECT_EQ(host_run({"zzzzzzzz"}).err.find("Did you mean"), std::string::npos);
}

// What the shell offers behind these words, the last of which is being typed; sorted.
std::string offered(const std::string &shell, const std::string &script) {
    const std::string program = SA_HOST;
    FILE *pipe =
        popen((shell + " -c '. <(" + program + " completion " + shell + "); " + script + "' | sort").c_str(), "r");
    std::string out(65536, '\0');
    out.resize(fread(&out[0], 1, out.size(), pipe));
    pclose(pipe);
    return out;
}

std::string offered_by_bash(const std::string &line, int at) {
    return offered("bash", "COMP_WORDS=(" + line + "); COMP_CWORD=" + std::to_string(at) +
                               "; _sa_host; printf \"%s\\n\" \"${COMPREPLY[@]}\"");
}

std::string offered_by_zsh(const std::string &line, int at) {
    return offered("zsh", "compdef() { :; }; compadd() { shift; print -l -- ${(M)@:#${words[CURRENT]}*}; }; words=(" +
                              line + "); CURRENT=" + std::to_string(at + 1) + "; _sa_host");
}

class Completion : public testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        if (system((std::string("command -v ") + GetParam() + " >/dev/null").c_str()) != 0) {
            GTEST_SKIP() << GetParam() << " is not installed";
        }
    }
    std::string offer(const std::string &line, int at) {
        return std::string(GetParam()) == "bash" ? offered_by_bash(line, at) : offered_by_zsh(line, at);
    }
};

TEST_P(Completion, OffersSubCommandsOptionsAndOperands) {
    EXPECT_EQ(offer("sa-host sen", 1), "send\n");
    EXPECT_EQ(offer("sa-host kernel-log \"\"", 2), "off\non\nquery\n");
    EXPECT_EQ(offer("sa-host --root / autostart r", 4), "remove\n");
    EXPECT_EQ(offer("sa-host autostart add zr-e", 3), "zr-elog\n");
    EXPECT_EQ(offer("sa-host send --ra", 2), "--raw\n");
    EXPECT_EQ(offer("sa-host wait --for \"\"", 3), "down\nup\n");
    EXPECT_EQ(offer("sa-host shell \"\"", 2).find("query"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Shells, Completion, testing::Values("bash", "zsh"),
                         [](const testing::TestParamInfo<const char *> &shell) { return std::string(shell.param); });

}  // namespace
