// Requests and their traces, seen from the host. All state is in the fixture.
#include "tests/support/commands.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>

#include "tests/support/skip.h"

static const char kShellRecord[] = "/dev/.desk/shell.record";
static const char kBusyboxRecord[] = "/dev/.desk/busybox.record";
static const char kEndOfPlatform[] = "sa_handle_read_cmd_loop handle_sa_cmd_req(";
static const char kEndOfFile[] = "sa_handle_read_cmd_loop req[";

static bool begins(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

lines joined(const std::vector<lines> &parts) {
    lines all;
    for (const lines &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

lines repeated(int count, const std::string &line) {
    return lines(static_cast<size_t>(count), line);
}

std::string report(const std::string &function, int code) {
    return "FILE-sa/sa-handle, FUNC-" + function + "(), error_code=" + std::to_string(code);
}

lines ok_steps() {
    return {"send_rsp_ok()", "send_rsp()", "send ==> \r\nOK\r\n"};
}

lines error_steps() {
    return {"send_rsp_err()", "send_rsp()", "send ==> \r\nERROR: -1\r\n"};
}

static lines lookup(const std::string &entry_mark, const std::string &name, pid_t pid, const std::string &program) {
    const std::string number = std::to_string(pid);
    lines all = {"util_is_process_running" + entry_mark, "sa_util_get_pid" + entry_mark,
                 "sa_util_get_pid process_name[" + name + "]"};
    if (pid != 0) {
        all.push_back("sa_util_get_pid find pid[" + number + "] buffer[" + program + "]");
    }
    all.push_back("util_is_process_running ret_val[0] pid[" + number + "]");
    all.push_back("util_is_process_running is_running[" + std::string(pid != 0 ? "1" : "0") + "] pid[" + number + "]");
    return all;
}

lines lookup_steps(const std::string &name, pid_t pid, const std::string &program) {
    return lookup("()", name, pid, program);
}

lines lookup_file_lines(const std::string &name, pid_t pid, const std::string &program) {
    return lookup(" ", name, pid, program);
}

bool record_shell(desk *h) {
    skip_in_place("shell of its own for the agent's command lines (/bin/sh is the container's)");
    const std::string text =
        "#!/system/bin/mksh\n"
        "for line; do :; done\n"
        "print -r -- \"$PPID $line\" >> " +
        std::string(kShellRecord) + "\nexec /system/bin/mksh \"$@\"\n";
    return desk_remove(h, "/system/bin/sh") && desk_write_file(h, "/system/bin/sh", text, 0755);
}

desk_file recording_busybox() {
    desk_file file = script("/system/bin/busybox",
                            "line=\nfor argument; do line=\"$line<$argument>\"; done\n"
                            "print -r -- \"$line\" >> " +
                                std::string(kBusyboxRecord) + "\nexec /system/xbin/busybox \"$@\"\n");
    file.text.replace(0, file.text.find('\n'), "#!/system/bin/mksh");  // not the shell that keeps records
    return file;
}

desk_file service_file(const std::string &name) {
    desk_file file;
    file.path = "/system/etc/init/" + name + ".rc";
    file.text =
        "service " + name + " /system/bin/dummy_service " + name + "\n    user root\n    disabled\n    oneshot\n";
    return file;
}

bool put_service_program(desk *h, const std::string &name) {
    return put_waiting_program(h, "/system/bin/" + name);
}

void add_quick_programs(desk_options *options) {
    for (const char *name : {"bugreport", "lsmod"}) {
        options->files.push_back(script(std::string("/system/bin/") + name, std::string("print of ") + name + "\n"));
    }
}

lines save_lines(const std::string &destination, const lines &present) {
    struct row {
        const char *condition;
        const char *line;  // with a mark for the destination
    };
    static const row kRows[] = {
        {"", "cat /proc/driver/codec > @/zr3360regs.log"},
        {"", "busybox cp /data/rec_dump.txt  @ -R"},
        {"", "busybox cp /data/play_out_dump.txt  @ -R"},
        {"", "busybox cp /data/local/log @/ -R"},
        {"/data/local/log-modem", "busybox cp /data/local/log-modem @/ -R"},
        {"/data/local/log-modem-1", "busybox cp /data/local/log-modem-1 @/ -R"},
        {"/data/local/log-modem-2", "busybox cp /data/local/log-modem-2 @/ -R"},
        {"/data/log", "busybox cp /data/log @/data-log -R"},
        {"/data/anr", "busybox cp /data/anr @ -R"},
        {"/data/data/com.android.mms", "busybox cp /data/data/com.android.mms @ -R"},
        {"/data/data/com.android.providers.telephony",
         "busybox cp /data/data/com.android.providers.telephony @/com.android.providers.telephony -R"},
        {"", "getprop > @/getprop.log"},
        {"", "busybox ifconfig > @/ifconfig.log"},
        {"", "ls /tmp > @/ls_tmp.log"},
        {"", "lsmod > @/lsmod.log"},
        {"", "ps > @/ps.log"},
        {"", "busybox route > @/route.log"},
        {"", "bugreport > @/bugreport.log"},
        {"", "busybox cp /data/tombstones  @ -R"},
    };
    lines all;
    for (const row &r : kRows) {
        std::string line = r.line;
        if (*r.condition == '\0' || count_lines(present, r.condition) > 0) {
            all.push_back(line.replace(line.find('@'), 1, destination));
        }
    }
    return all;
}

void CommandTest::TearDown() {
    end();  // nobody has to wait for programs that end with the handset
    CollectorTest::TearDown();
}

// ---- requests

void CommandTest::begin(const std::string &bytes) {
    const std::vector<desk_log_entry> log = desk_log(h);
    from_sequence = log.empty() ? 0 : log.back().sequence + 1;
    from_line = file_lines().size();
    send(bytes);
}

// "FILE-sa/sa-handle, LINE-12, FUNC-f(), error_code=-1, errno=2" without what may change: the line, and an errno that a
// report which follows no system call has by chance. Any other line stays as it is.
static std::string without_place(const std::string &text) {
    static const std::regex kReport(
        "(FILE-[a-z/-]+, )LINE-[0-9]+, (FUNC-\\w+\\(\\), error_code=-?[0-9]+), errno=[0-9]+");
    return begins(text, "FILE-") ? std::regex_replace(text, kReport, "$1$2") : text;
}

// Keeps the lines of the thread that wrote the one before `end`.
void CommandTest::collect_platform(uint64_t end) {
    std::vector<desk_log_entry> log = desk_log(h);
    const auto last =
        std::find_if(log.begin(), log.end(), [end](const desk_log_entry &entry) { return entry.sequence + 1 == end; });
    served_platform.clear();
    for (auto at = log.begin(); at != last && at != log.end(); ++at) {
        const bool ours = at->sequence >= from_sequence && at->pid == last->pid && at->tid == last->tid &&
                          (at->tag == "zr-qel-sa" || at->tag == "zr-qel-pub");
        if (ours) {
            served_platform.push_back({at->time, without_place(at->text)});
        }
    }
    if (last != log.end()) {
        served_platform.push_back({last->time, last->text});
    }
}

std::string CommandTest::finish(int limit_ms) {
    const std::string answer = receive(limit_ms);
    const uint64_t end = desk_wait_log_part(h, "zr-qel-sa", kEndOfPlatform, from_sequence);
    EXPECT_NE(end, 0u) << "the request did not come to its end";
    collect_platform(end);
    EXPECT_TRUE(desk_until([&] {
        served_file = file_lines_from(from_line);
        return std::any_of(served_file.begin(), served_file.end(),
                           [](const std::string &line) { return begins(line, kEndOfFile); });
    }));
    return answer;
}

std::string CommandTest::say(const std::string &bytes, int limit_ms) {
    begin(bytes);
    return finish(limit_ms);
}

std::string CommandTest::request(const std::string &text, int limit_ms) {
    return say("AT SA" + text + "\r", limit_ms);
}

// ---- what they left

lines CommandTest::steps() {
    lines texts;
    bool inside = false;
    for (const written &e : served_platform) {
        if (inside && !begins(e.text, kEndOfPlatform)) {
            texts.push_back(e.text);
        }
        inside = inside || e.text == "handle_sa_cmd_req()";
    }
    return texts;
}

std::string CommandTest::result() {
    const std::string text = served_platform.empty() ? "" : served_platform.back().text;
    const size_t at = text.rfind(" ret_val[");
    return at == std::string::npos ? "none" : text.substr(at + 1);
}

lines CommandTest::file_steps() {
    const std::string dispatcher = "handle_sa_cmd_req ";
    lines texts;
    bool inside = false;
    for (const std::string &line : served_file) {
        const bool is_frame = begins(line, dispatcher);
        if (inside && (is_frame || begins(line, kEndOfFile))) {
            break;
        }
        if (inside) {
            texts.push_back(line);
        }
        inside = inside || is_frame;
    }
    return texts;
}

lines CommandTest::file_steps_of(const std::string &function) {
    return rests(file_steps(), function + " ");
}

std::vector<double> CommandTest::moments(const std::string &prefix) {
    std::vector<double> found;
    for (const written &e : served_platform) {
        if (begins(e.text, prefix)) {
            found.push_back(e.time);
        }
    }
    return found;
}

::testing::AssertionResult CommandTest::apart(const std::vector<double> &moments, double seconds) {
    for (size_t i = 1; i < moments.size(); i++) {
        if (moments[i] - moments[i - 1] < seconds) {
            return ::testing::AssertionFailure()
                   << "only " << moments[i] - moments[i - 1] << " s between the moments " << i - 1 << " and " << i;
        }
    }
    return ::testing::AssertionSuccess();
}

// ---- shell, busybox, properties

lines CommandTest::taken_lines(const std::string &path, size_t *offset_ptr) {
    const std::string text = desk_file_text(h, path);
    lines found;
    size_t begin = *offset_ptr;
    for (size_t end = text.find('\n', begin); end != std::string::npos; end = text.find('\n', begin)) {
        found.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    *offset_ptr = begin;
    return found;
}

lines CommandTest::shell_lines() {
    return rests(taken_lines(kShellRecord, &shell_offset), std::to_string(desk_agent_pid(h)) + " ");
}

lines CommandTest::busybox_lines() {
    return taken_lines(kBusyboxRecord, &busybox_offset);
}

lines CommandTest::property_requests(const std::string &name) {
    const std::vector<desk_event> events = desk_events(h);
    lines values;
    for (size_t i = events_seen; i < events.size(); i++) {
        if (events[i].kind == "prop" && events[i].fields.size() > 1 && events[i].fields[0] == name) {
            values.push_back(events[i].fields[1]);
        }
    }
    events_seen = events.size();
    return values;
}

// ---- saves

std::string CommandTest::destination() {
    const lines found = rests(file_steps(), "handle_sa_save_log_set log_path_a[");
    return found.empty() ? "" : found[0].substr(0, found[0].find(']'));
}

std::string CommandTest::channel_number() {
    const lines found = rests(file_lines(), "sa_handle_read_cmd_loop ptm_fd[");
    return found.empty() ? "" : found[0].substr(0, found[0].find(']'));
}

static void add_tree(desk *h, const std::string &directory, const std::string &prefix,
                     std::map<std::string, std::string> *tree_ptr) {
    for (const std::string &name : desk_list(h, directory)) {
        const std::string path = directory + "/" + name;
        struct stat st;
        if (!desk_lstat(h, path, &st)) {
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            (*tree_ptr)[prefix + name] = "directory";
            add_tree(h, path, prefix + name + "/", tree_ptr);
        } else {
            (*tree_ptr)[prefix + name] =
                S_ISLNK(st.st_mode) ? "link to " + desk_link_target(h, path) : desk_file_text(h, path);
        }
    }
}

std::map<std::string, std::string> CommandTest::tree(const std::string &directory) {
    std::map<std::string, std::string> all;
    add_tree(h, directory, "", &all);
    return all;
}

// ---- programs

pid_t CommandTest::start_program(const std::string &name) {
    desk_program program;
    program.argv = {"/system/bin/" + name};
    desk_child child;
    EXPECT_TRUE(desk_start(h, program, &child)) << desk_error();
    programs.push_back(child);
    EXPECT_TRUE(desk_until([&] { return desk_arguments(h, child.pid) == program.argv; }));
    return child.pid;
}

// Every thread of the agent has a tracer.
static bool is_traced(desk *h, pid_t pid) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    const lines threads = desk_list(h, tasks);
    return !threads.empty() && std::none_of(threads.begin(), threads.end(), [&](const std::string &thread) {
        return desk_file_text(h, tasks + "/" + thread + "/status").find("TracerPid:\t0\n") != std::string::npos;
    });
}

void CommandTest::inject(const std::string &injection, const std::string &path) {
    const pid_t agent = desk_agent_pid(h);
    desk_program program;
    program.argv = {"/usr/bin/strace",    "-f", "-qq", "-o", "/dev/null", "-e", "inject=" + injection, "-p",
                    std::to_string(agent)};
    if (!path.empty()) {
        program.argv.insert(program.argv.end() - 2, {"-P", path});
    }
    ASSERT_TRUE(desk_start(h, program, &tracer)) << desk_error();
    ASSERT_TRUE(desk_until([&] { return is_traced(h, agent); })) << "strace is not in place";
}

void CommandTest::stop_injecting() {
    ASSERT_TRUE(desk_kill(h, tracer.pid, SIGTERM));
    ASSERT_NE(desk_wait(h, &tracer, 10000), -1);
    tracer = desk_child();
}
