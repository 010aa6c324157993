// The fixture of the log's tests. State: the number of the last marker.
#include "tests/desklog/programs.h"

#include <signal.h>
#include <sys/wait.h>

#include "tests/support/skip.h"

static const bool m_skipping = skip_unsupported();

log_desk::log_desk(const std::string &zone) {
    desk_options options;
    options.agent = false;
    options.timezone = zone;
    h = desk_boot(options);
    EXPECT_NE(h, nullptr) << desk_error();
    // Writable for all, as the log directory is for uid 2000.
    EXPECT_TRUE(h != nullptr && desk_make_dir(h, "/data/d", 0777));
}

log_desk::~log_desk() {
    desk_end(h);
}

desk_result log_desk::run(const words &argv, uid_t uid, gid_t gid) {
    desk_program program;
    program.argv = argv;
    program.uid = uid;
    program.gid = gid;
    return desk_run(h, program);
}

void log_desk::log(const words &arguments) {
    words argv = {"log"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const desk_result result = run(argv);
    EXPECT_EQ(result.status, 0) << result.errors;
    // Entries arrive in order, so the entry has arrived when a later marker has.
    static int number = 0;
    const std::string marker = "marker " + std::to_string(++number);
    EXPECT_EQ(run({"log", "-b", "crash", "-t", "desk-marker", marker}).status, 0);
    EXPECT_NE(desk_wait_log(h, "desk-marker", marker), 0u) << marker;
}

std::string log_desk::dump(const words &arguments, uid_t uid, gid_t gid) {
    words argv = {"logcat", "-d"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const desk_result result = run(argv, uid, gid);
    EXPECT_EQ(result.status, 0) << result.errors;
    return result.output;
}

desk_child log_desk::collect(const words &arguments) {
    desk_program program;
    program.argv = {"logcat"};
    program.argv.insert(program.argv.end(), arguments.begin(), arguments.end());
    program.uid = kShell;
    program.gid = kLog;
    program.umask = 077;
    desk_child child;
    EXPECT_TRUE(desk_start(h, program, &child)) << desk_error();
    return child;
}

void log_desk::stop(desk_child *child) {
    EXPECT_TRUE(desk_kill(h, child->pid, SIGKILL)) << desk_error();
    EXPECT_EQ(desk_wait(h, child, 30000), SIGKILL);
}

std::string log_desk::text(const std::string &path) {
    return desk_file_text(h, path);
}

int exit_code(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

size_t occurrences(const std::string &whole, const std::string &part) {
    size_t count = 0;
    for (size_t at = whole.find(part); at != std::string::npos; at = whole.find(part, at + part.size())) {
        count++;
    }
    return count;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        lines.push_back(text.substr(start, end - start));
    }
    if (start < text.size()) {
        lines.push_back(text.substr(start));
    }
    return lines;
}
