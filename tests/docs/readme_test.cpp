// Runs every sa-host command in the transcript of README.md and compares its output and the lines in the agent's log.
#include <algorithm>
#include <regex>

#include "tests/docs/pages.h"
#include "tests/support/collectors.h"

// Numbers, dates and sizes differ from run to run.
static std::string without_numbers(const std::string &text) {
    return std::regex_replace(text, std::regex("[0-9]+"), "#");
}

static page_lines lines_of(const std::string &text) {
    page_lines found;
    size_t from = 0;
    for (size_t end; (end = text.find('\n', from)) != std::string::npos; from = end + 1) {
        found.push_back(text.substr(from, end - from));
    }
    return found;
}

struct shown_command {
    std::string line;
    page_lines output;  // except cut lines
    page_lines log;     // lines of the diagnostic log, except cut ones
};

static bool is_cut(const std::string &text) {
    return text.size() >= 3 && text.compare(text.size() - 3, 3, "...") == 0;
}

static std::vector<shown_command> transcript() {
    const std::string prompt = "$ sa-host ";
    std::vector<shown_command> found;
    bool is_inside = false;
    bool is_log = false;
    for (const std::string &line : page("README.md")) {
        if (line.compare(0, prompt.size(), prompt) == 0) {
            found.push_back({line.substr(2), {}, {}});
            is_inside = true;
            is_log = false;
        } else if (line.empty() || line.compare(0, 3, "```") == 0) {
            is_inside = false;
        } else if (is_inside && line.compare(0, 4, "  | ") == 0) {
            is_log = true;
            if (!is_cut(line)) {
                found.back().log.push_back(line.substr(4));
            }
        } else if (is_inside && !is_log && !is_cut(line)) {
            found.back().output.push_back(line);
        }
    }
    return found;
}

class Readme : public CollectorTest {
  protected:
    // Expects every shown line in the text. Numbers may differ.
    static void expect_all(const page_lines &shown, const std::string &text, const std::string &command) {
        page_lines there;
        for (const std::string &line : lines_of(text)) {
            there.push_back(without_numbers(line));
        }
        for (const std::string &line : shown) {
            EXPECT_GT(std::count(there.begin(), there.end(), without_numbers(line)), 0)
                << command << " shows: " << line << "\nbut there is:\n"
                << text;
        }
    }
};

TEST_F(Readme, TranscriptIsWhatARunShows) {
    desk_options options;
    desk_file host;
    host.path = "/system/bin/sa-host";
    host.host_source = SA_HOST;
    options.files.push_back(host);
    options.prepare = [](desk *handset) { return desk_make_dir(handset, "/data/tombstones"); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    hang_up();
    const std::vector<shown_command> commands = transcript();
    ASSERT_GE(commands.size(), 4u);
    for (const shown_command &shown : commands) {
        const desk_result result = desk_shell(h, shown.line, 60000);
        EXPECT_EQ(result.status, 0) << shown.line << result.errors;
        expect_all(shown.output, result.output, shown.line);
        std::string log;
        // The agent may write its lines after the answer. README.md shows the carriage return of a request as \r.
        desk_until([&] {
            log = std::regex_replace(desk_file_text(h, kSaLog), std::regex("\r"), "\\r");
            const std::string text = without_numbers(log);
            return std::all_of(shown.log.begin(), shown.log.end(), [&](const std::string &line) {
                return text.find(without_numbers(line)) != std::string::npos;
            });
        });
        expect_all(shown.log, log, shown.line);
    }
}
