// Handsets to measure in. No state: a handset belongs to its caller.
#include "bench/handsets.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

static const char kService[] = "zr-qel-sa";
static const char kChannel[] = "/dev/ttyCMD0";
static const char kListener[] = "/dev/ttysa1";
static const char kQuiet[] = "/data/local/log,I1,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0";
static const int kLimit = 20000;      // ms
static const int kReadyLimit = 100;   // ms for an answer of an agent that may still be opening its channel
static const double kBootLimit = 20;  // s
static const char kPort[] = "2222";

// ---- handsets

desk_options without_collectors() {
    desk_options options;
    options.properties.push_back({"persist.sys.install.zr.log", kQuiet});
    return options;
}

desk *boot_handset(desk_options options) {
    desk_file inside;
    inside.path = "/desk/inside";
    inside.host_source = BENCH_INSIDE;
    options.files.push_back(inside);
    desk *h = desk_boot(options);
    if (h == nullptr) {
        give_up(desk_error());
    }
    if (options.agent) {
        close(open_channel(h));
    }
    return h;
}

pid_t agent_of(desk *h) {
    return desk_host_pid(h, desk_agent_pid(h));
}

void stop_agent(desk *h) {
    desk_service_stop(h, kService);
    if (!desk_wait_service(h, kService, "stopped")) {
        give_up("the agent does not stop");
    }
    desk_remove(h, kChannel);
    desk_remove(h, kListener);
}

void restart_agent(desk *h) {
    stop_agent(h);
    desk_service_start(h, kService);
    close(open_channel(h));
}

// ---- channels

int open_terminal(desk *h, const std::string &path) {
    const double end = now_seconds() + kBootLimit;
    int fd = -1;
    while ((fd = desk_open(h, path, O_RDWR | O_NOCTTY)) < 0) {
        if (now_seconds() > end) {
            give_up(path + " cannot be opened");
        }
        usleep(200);
    }
    return fd;
}

int open_channel(desk *h) {
    const double end = now_seconds() + kBootLimit;
    while (now_seconds() < end) {
        const int channel = open_terminal(h, kChannel);
        if (try_request(channel, "AT\r", kReadyLimit)) {
            return channel;
        }
        close(channel);
    }
    give_up("the agent does not answer");
}

void write_text(int fd, const std::string &text) {
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        give_up(std::string("a terminal cannot be written: ") + strerror(errno));
    }
}

bool try_request(int channel, const std::string &request, int limit_ms) {
    static const char kEnd[] = "OK\r\n";
    static const size_t kEndLength = sizeof(kEnd) - 1;
    if (write(channel, request.data(), request.size()) < 0) {
        return false;
    }
    char answer[256];
    size_t length = 0;
    while (length < kEndLength || memcmp(answer + length - kEndLength, kEnd, kEndLength) != 0) {
        struct pollfd readable = {channel, POLLIN, 0};
        if (length == sizeof(answer) || poll(&readable, 1, limit_ms) != 1) {
            return false;
        }
        const ssize_t count = read(channel, answer + length, sizeof(answer) - length);
        if (count <= 0) {
            return false;
        }
        length += static_cast<size_t>(count);
    }
    return true;
}

void request_ok(int channel, const std::string &request) {
    if (!try_request(channel, request, 10 * kLimit)) {
        give_up("not answered OK: " + request);
    }
}

int open_shell(desk *h, int listener, const std::string &command) {
    write_text(listener, "shell:" + command);
    char path[512];
    const ssize_t length = read(listener, path, sizeof(path) - 1);
    if (length <= 0) {
        give_up("no remote shell was announced");
    }
    path[length] = '\0';
    write_text(listener, "+");
    return open_terminal(h, path);
}

size_t read_all(int fd, size_t limit) {
    static char bytes[65536];
    size_t total = 0;
    ssize_t count;
    while (total < limit && (count = read(fd, bytes, sizeof(bytes))) > 0) {
        total += static_cast<size_t>(count);
    }
    return total;
}

// ---- programs

static std::vector<std::vector<double>> numbers_in(const std::string &text) {
    std::vector<std::vector<double>> rows;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        rows.emplace_back();
        double number;
        while (words >> number) {
            rows.back().push_back(number);
        }
    }
    return rows;
}

std::vector<std::vector<double>> run_inside(desk *h, const std::vector<std::string> &words, int limit_ms) {
    desk_program program;
    program.argv = {"/desk/inside"};
    program.argv.insert(program.argv.end(), words.begin(), words.end());
    const desk_result result = desk_run(h, program, "", limit_ms);
    if (result.status != 0) {
        give_up("inside " + words[0] + " failed: " + result.errors);
    }
    return numbers_in(result.output);
}

desk_child start_program(desk *h, const std::vector<std::string> &argv, int in, int out) {
    desk_program program;
    program.argv = argv;
    program.fds[0] = in;
    program.fds[1] = out;
    program.environment = {"HOME=/data/root"};
    desk_child child;
    if (!desk_start(h, program, &child)) {
        give_up(desk_error());
    }
    return child;
}

void end_program(desk *h, desk_child *child) {
    desk_kill(h, child->pid, SIGKILL);
    desk_wait(h, child, kLimit);
}

std::string run_shell(desk *h, const std::string &command) {
    const desk_result result = desk_shell(h, command);
    if (result.status != 0) {
        give_up(command + ": " + result.errors);
    }
    return result.output;
}

// ---- dropbear

void prepare_dropbear(desk *h) {
    if (!desk_make_dir(h, "/data/root/.ssh", 0700) ||
        !desk_write_file(h, "/etc/passwd", "root:x:0:0::/data/root:/bin/sh\n")) {
        give_up(desk_error());
    }
    run_shell(h,
              "cd /data/root && chmod 700 . && /usr/bin/dropbearkey -t ed25519 -f host >host.txt 2>&1 &&"
              " /usr/bin/dropbearkey -t ed25519 -f key >key.txt 2>&1 &&"
              " grep ^ssh- key.txt >.ssh/authorized_keys && chmod 600 .ssh/authorized_keys");
}

desk_child start_dropbear(desk *h) {
    desk_child server = start_program(h, {"/usr/sbin/dropbear", "-F", "-r", "/data/root/host", "-p",
                                          std::string("127.0.0.1:") + kPort, "-P", "/data/root/pid"});
    const std::string listens = text_of(":%04X 00000000:0000 0A", 2222u);
    if (!desk_until([&] { return desk_file_text(h, "/proc/1/net/tcp").find(listens) != std::string::npos; })) {
        give_up("dropbear does not listen");
    }
    return server;
}

// ---- processes

void keep_on_processor(pid_t host_pid, int processor) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    for (int i = 0; i < CPU_SETSIZE; i++) {
        if (processor < 0 || i == processor) {
            CPU_SET(i, &allowed);
        }
    }
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(host_pid) + "/task")) {
        sched_setaffinity(atoi(task.path().filename().c_str()), sizeof(allowed), &allowed);
    }
}

static double kib_of(const std::string &rollup, const std::string &name) {
    const size_t at = rollup.find("\n" + name + ":");
    return at == std::string::npos ? 0 : atof(rollup.c_str() + at + name.size() + 2);
}

memory memory_of(pid_t host_pid) {
    std::ifstream file("/proc/" + std::to_string(host_pid) + "/smaps_rollup");
    std::ostringstream text;
    text << file.rdbuf();
    memory held;
    held.pss = kib_of(text.str(), "Pss");
    held.dirty = kib_of(text.str(), "Private_Dirty");
    held.private_ = held.dirty + kib_of(text.str(), "Private_Clean");
    return held;
}

int descriptors_of(pid_t host_pid) {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(host_pid) + "/fd")) {
        (void)entry;
        count++;
    }
    return count;
}
