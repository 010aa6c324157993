// Collectors from outside: what the handset's /proc and logs tell of them. No state.
#include "tests/support/collectors.h"

#include <signal.h>

#include <algorithm>

const char kLogProperty[] = "persist.sys.install.zr.log";
const char kLogDefault[] = "/data/local/log,I1,3,5120,I2,5,8192,I3,5,20480,I4,5,5120,I5,5,5120,I6,5,5120";

std::string log_property(const std::map<int, std::string> &on, const std::string &directory) {
    std::string value = directory;
    for (int position = 1; position <= 6; position++) {
        const auto found = on.find(position);
        value += ",I" + std::to_string(position) + "," + (found != on.end() ? found->second : "0,0");
    }
    return value;
}

desk_options with_log_property(const std::string &value) {
    desk_options options;
    options.properties.push_back({kLogProperty, value});
    return options;
}

bool put_waiting_program(desk *h, const std::string &path) {
    std::string program;
    return desk_read_file(h, "/system/bin/dummy_service", &program) && desk_remove(h, path) &&
           desk_write_file(h, path, program, 0755);
}

desk_file script(const std::string &path, const std::string &text) {
    desk_file file;
    file.path = path;
    file.text = "#!/system/bin/sh\n" + text;
    file.mode = 0755;
    return file;
}

desk_file stand_in(const std::string &name, const std::string &path) {
    desk_file file;
    file.path = path;
    file.host_source = STAND_INS "/lib" + name + ".so";
    return file;
}

static const char kFailures[] = "/dev/.desk/fail";

void preload(desk_options *options, const std::string &name) {
    const std::string variable = "LD_PRELOAD=";
    const std::string path = "/system/lib/" + name + ".so";
    options->files.push_back(stand_in(name, path));
    for (std::string &entry : options->environment) {
        if (entry.compare(0, variable.size(), variable) == 0) {
            entry += ":" + path;
            return;
        }
    }
    options->environment.push_back(variable + path);
    options->environment.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
}

bool put_pipe(desk *h, const std::string &path) {
    return desk_remove(h, path) && desk_shell(h, "busybox mkfifo -m 600 " + path).status == 0;
}

void add_failing_calls(desk_options *options) {
    preload(options, "failing_calls");
}

void fail_call(desk *h, const std::string &call, const std::string &how) {
    ASSERT_TRUE(desk_make_dir(h, kFailures));
    ASSERT_TRUE(desk_write_file(h, std::string(kFailures) + "/" + call, how));
}

void fail_call(desk *h, const std::string &call, int error) {
    fail_call(h, call, std::to_string(error));
}

void heal_call(desk *h, const std::string &call) {
    ASSERT_TRUE(desk_remove(h, std::string(kFailures) + "/" + call));
}

static bool is_number(const std::string &name) {
    return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

pid_t CollectorTest::process_with(const std::string &argument, int limit_ms) {
    pid_t found = -1;
    desk_until(
        [&] {
            for (const std::string &name : desk_list(h, "/proc")) {
                if (!is_number(name)) {
                    continue;
                }
                const std::vector<std::string> arguments = desk_arguments(h, stoi(name));
                if (count_lines(arguments, argument) > 0 && arguments[0] != "/system/bin/zr-qel-sa") {
                    found = stoi(name);
                    return true;
                }
            }
            return false;
        },
        limit_ms);
    return found;
}

std::vector<pid_t> CollectorTest::children_of(pid_t pid) {
    std::vector<pid_t> children;
    for (const std::string &name : desk_list(h, "/proc")) {
        if (is_number(name) && stat(stoi(name), 4) == pid) {
            children.push_back(stoi(name));
        }
    }
    return children;
}

std::string CollectorTest::vector_of(pid_t pid) {
    std::string text;
    for (const std::string &argument : desk_arguments(h, pid)) {
        text += "<" + argument + ">";
    }
    return text;
}

std::string CollectorTest::status(pid_t pid, const std::string &name) {
    const std::string text = "\n" + desk_file_text(h, "/proc/" + std::to_string(pid) + "/status");
    const std::string wanted = "\n" + name + ":\t";
    const size_t at = text.find(wanted);
    if (at == std::string::npos) {
        return "";
    }
    const size_t begin = at + wanted.size();
    return text.substr(begin, text.find('\n', begin) - begin);
}

long CollectorTest::stat(pid_t pid, int field) {
    const std::string text = desk_file_text(h, "/proc/" + std::to_string(pid) + "/stat");
    size_t at = text.rfind(')');  // field 2 ends here
    for (int number = 2; number < field && at != std::string::npos; number++) {
        at = text.find(' ', at + 1);
    }
    return at == std::string::npos ? -1 : atol(text.c_str() + at + 1);
}

std::vector<std::string> CollectorTest::platform_lines(const std::string &tag) {
    settle();
    return AgentTest::platform_lines(tag);
}

std::vector<std::string> CollectorTest::main_thread_lines() {
    settle();
    const pid_t agent = desk_agent_pid(h);
    std::vector<std::string> lines;
    for (const desk_log_entry &entry : desk_log(h, "zr-qel-sa")) {
        if (entry.pid == agent && entry.tid == agent) {
            lines.push_back(entry.text);
        }
    }
    return lines;
}

std::vector<std::string> CollectorTest::rests(const std::vector<std::string> &lines, const std::string &prefix) {
    std::vector<std::string> found;
    for (const std::string &line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            found.push_back(line.substr(prefix.size()));
        }
    }
    return found;
}

std::vector<std::string> CollectorTest::file_lines_from(size_t from) {
    std::vector<std::string> lines = file_lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<ptrdiff_t>(std::min(from, lines.size())));
    return lines;
}

std::vector<std::string> CollectorTest::reports() {
    std::vector<std::string> found;
    for (const std::string &line : platform_lines()) {
        const size_t at = line.find(", FUNC-");
        if (line.compare(0, 5, "FILE-") == 0 && at != std::string::npos) {
            found.push_back(line.substr(at + 2));
        }
    }
    return found;
}

std::vector<std::pair<pid_t, int>> CollectorTest::agent_ends() {
    std::vector<std::pair<pid_t, int>> ends;
    for (const desk_event &event : desk_events(h, "exit")) {
        if (event.fields[0] == "zr-qel-sa") {
            ends.push_back({stoi(event.fields[1]), stoi(event.fields[2])});
        }
    }
    return ends;
}

static uint64_t end_of_log(desk *h) {
    const std::vector<desk_log_entry> log = desk_log(h);
    return log.empty() ? 0 : log.back().sequence + 1;
}

// The name of the channel may be left over from an agent that was killed, and lead to the new one's listener by now.
void CollectorTest::open_new_channel(uint64_t from) {
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "sa_listener_loop fd[", from), 0u) << "the agent did not come up";
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "sa_handle_read_cmd_loop pub_pty_open ", from), 0u);
    open_channel();
}

void CollectorTest::start_agent() {
    const uint64_t from = end_of_log(h);
    ASSERT_EQ(desk_service_start(h, "zr-qel-sa"), 0);
    ASSERT_NO_FATAL_FAILURE(open_new_channel(from));
}

void CollectorTest::restart_agent() {
    const uint64_t from = end_of_log(h);
    hang_up();
    ASSERT_EQ(desk_service_restart(h, "zr-qel-sa"), 0);
    ASSERT_NO_FATAL_FAILURE(open_new_channel(from));
}
