// The shared parts of whole-agent tests. All state is in the fixture.
#include "tests/support/agent.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>

#include "tests/support/crash.h"
#include "tests/support/sanitized.h"
#include "tests/support/skip.h"

const char kOk[] = "\r\nOK\r\n";
const char kError[] = "\r\nERROR: -1\r\n";
const char kSaLog[] = "/data/local/log/sa.log";

static const bool kSkipping = skip_unsupported();
static const char kQuiet[] = "/data/local/log,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0";

desk_options quiet_options() {
    desk_options options;
    options.properties.push_back({"persist.sys.install.zr.log", kQuiet});
    return options;
}

void AgentTest::TearDown() {
    struct stat st;  // a pipe in its place is not to be read
    if (HasFailure() && h != nullptr && desk_stat(h, kSaLog, &st) && S_ISREG(st.st_mode)) {
        fprintf(stderr, "---- sa.log\n%s----\n", desk_file_text(h, kSaLog).c_str());
    }
    end();
}

void AgentTest::end() {
    hang_up();
    if (h != nullptr && !sends_crashes) {
        EXPECT_EQ(crash_of(h), "") << "the agent crashed";
    }
    desk_end(h);
    h = nullptr;
}

void AgentTest::boot_only(const desk_options &options) {
    h = desk_boot(options);
    ASSERT_NE(h, nullptr) << desk_error();
}

void AgentTest::boot(const desk_options &options) {
    boot_only(options);
    if (HasFatalFailure()) {
        return;
    }
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "sa_listener_loop fd["), 0u) << "the agent did not come up";
    ASSERT_TRUE(wait_programs());
    open_channel();
}

desk_child AgentTest::launch(const std::vector<std::string> &arguments) {
    desk_program program;
    program.argv = {"/system/bin/zr-qel-sa"};
    program.argv.insert(program.argv.end(), arguments.begin(), arguments.end());
    program.umask = 077;  // as services have it
    desk_child agent;
    EXPECT_TRUE(desk_start(h, program, &agent)) << desk_error();
    return agent;
}

desk_result AgentTest::run(const std::vector<std::string> &argv, const std::string &input) {
    desk_program program;
    program.argv = argv;
    program.umask = 077;
    return desk_run(h, program, input);
}

bool AgentTest::wait_listening(pid_t pid, int limit_ms) {
    const std::string listens = "sa_listener_loop fd[";
    return desk_until(
        [&] {
            const std::vector<desk_log_entry> log = desk_log(h, "zr-qel-sa");
            return std::any_of(log.begin(), log.end(), [&](const desk_log_entry &entry) {
                return entry.pid == pid && entry.text.compare(0, listens.size(), listens) == 0;
            });
        },
        limit_ms);
}

bool AgentTest::wait_programs(int limit_ms) {
    return desk_until([&] { return desk_pids(h, "/system/bin/zr-qel-sa").size() <= 1; }, limit_ms);
}

void AgentTest::open_channel() {
    hang_up();
    channel = desk_open_tty(h, "/dev/ttyCMD0");
    ASSERT_GE(channel, 0) << desk_error();
}

void AgentTest::hang_up() {
    if (channel >= 0) {
        close(channel);
    }
    channel = -1;
}

void AgentTest::send(const std::string &bytes) {
    ASSERT_EQ(write(channel, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

static bool is_whole(const std::string &answer) {
    const std::string ok = "OK\r\n";
    if (answer.size() >= ok.size() && answer.compare(answer.size() - ok.size(), ok.size(), ok) == 0) {
        return true;
    }
    const size_t error = answer.find("ERROR: ");
    return error != std::string::npos && answer.find("\r\n", error) != std::string::npos;
}

std::string AgentTest::receive(int limit_ms) {
    const int64_t end_time = desk_now_ms() + limit_ms;
    std::string answer;
    while (!is_whole(answer)) {
        const int slice = desk_slice_ms(end_time);
        struct pollfd poll_channel = {channel, POLLIN, 0};
        char bytes[256];
        const int ready = poll(&poll_channel, 1, slice);
        if (ready == 0 && slice > 0) {
            continue;
        }
        if (ready != 1) {
            break;
        }
        const ssize_t count = read(channel, bytes, sizeof(bytes));
        if (count <= 0) {
            break;
        }
        answer.append(bytes, static_cast<size_t>(count));
    }
    return answer;
}

std::string AgentTest::ask(const std::string &bytes, int limit_ms) {
    send(bytes);
    return receive(limit_ms);
}

std::string AgentTest::command(const std::string &text, int limit_ms) {
    return ask("AT SA" + text + "\r", limit_ms);
}

// "[07-14 09:58:07.123]main pid[5]" without its time stamp; a line that has none (the rest of a message that holds a
// newline) as it is.
static std::string without_time(const std::string &line) {
    const size_t width = sizeof("[MM-DD hh:mm:ss.mmm]") - 1;
    return line.size() >= width && line[0] == '[' && line[width - 1] == ']' ? line.substr(width) : line;
}

std::vector<std::string> AgentTest::file_lines() {
    const std::string text = desk_file_text(h, kSaLog);
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        lines.push_back(without_time(text.substr(begin, end - begin)));
        begin = end + 1;
    }
    return lines;
}

std::vector<std::string> AgentTest::platform_lines(const std::string &tag) {
    std::vector<std::string> lines;
    for (const desk_log_entry &entry : desk_log(h, tag)) {
        lines.push_back(entry.text);
    }
    return lines;
}

void AgentTest::settle() {
    const std::string mark = std::to_string(++settled);
    ASSERT_EQ(run({"/system/bin/log", "-t", "settle", mark}).status, 0);
    ASSERT_NE(desk_wait_log(h, "settle", mark), 0u) << "the log daemon does not answer";
}

std::vector<std::string> AgentTest::process_lines(pid_t pid) {
    std::vector<std::string> lines;
    for (const desk_log_entry &entry : desk_log(h)) {
        if (entry.pid == pid && (entry.tag == "zr-qel-sa" || entry.tag == "zr-qel-pub")) {
            lines.push_back(entry.text);
        }
    }
    return lines;
}

bool AgentTest::wait_file_line(const std::string &line, int limit_ms) {
    return desk_until([&] { return count_lines(file_lines(), line) > 0; }, limit_ms);
}

std::vector<std::string> AgentTest::descriptors(pid_t pid) {
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    std::vector<std::string> names = desk_list(h, directory);
    std::sort(names.begin(), names.end(), [](const std::string &a, const std::string &b) { return stoi(a) < stoi(b); });
    for (std::string &name : names) {
        name += " -> " + desk_link_target(h, directory + "/" + name);
    }
    return names;
}

int AgentTest::threads(pid_t pid) {
    return static_cast<int>(desk_list(h, "/proc/" + std::to_string(pid) + "/task").size()) - sanitizer_threads();
}

int count_lines(const std::vector<std::string> &lines, const std::string &text) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), text));
}

::testing::AssertionResult in_order(const std::vector<std::string> &lines, const std::vector<std::string> &wanted) {
    auto at = lines.begin();
    for (const std::string &line : wanted) {
        at = std::find(at, lines.end(), line);
        if (at == lines.end()) {
            return ::testing::AssertionFailure() << "missing, or not in this place: " << line;
        }
        ++at;
    }
    return ::testing::AssertionSuccess();
}

std::vector<std::string> without_thread_ids(std::vector<std::string> lines) {
    static const std::regex kId("m_read_cmd_thread_id\\[[0-9]+\\]");
    for (std::string &line : lines) {
        line = std::regex_replace(line, kId, "m_read_cmd_thread_id[N]");
    }
    return lines;
}
