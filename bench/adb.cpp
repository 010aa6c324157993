// sa-host through adb, compared with sa-host on local files and with adb's own commands through the same daemon.
// State: the directory of the adb server during the measurement.
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const char kBulk[] = "/data/bulk";
static const char kSet[] = "/storage/real_sd/logs/2026_11_21_10_00_00";
static const char kSetFile[] = "/storage/real_sd/logs/2026_11_21_10_00_00/big";

// The daemon closes a terminal some time after its client hangs up. Until then it reads the answers of other clients.
static const useconds_t kCloseUs = 200000;

static std::string m_directory;  // of the server's socket, of lock files and copies

static std::string start_daemon(desk *h, desk_child *daemon) {
    struct sockaddr_in address = {};
    socklen_t size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    desk_program program;
    program.argv = {"/system/bin/adbd"};
    program.fds[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(program.fds[0], reinterpret_cast<struct sockaddr *>(&address), size) != 0 ||
        listen(program.fds[0], 1) != 0 ||
        getsockname(program.fds[0], reinterpret_cast<struct sockaddr *>(&address), &size) != 0 ||
        !desk_start(h, program, daemon)) {
        give_up("the handset's adb daemon does not start");
    }
    close(program.fds[0]);
    return "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

// Runs a command line of this machine and reads its output to the end.
static double command_seconds(const std::string &command, size_t expected) {
    const double start = now_seconds();
    FILE *output = popen((command + " </dev/null").c_str(), "r");
    if (output == nullptr) {
        give_up("popen");
    }
    const size_t got = read_all(fileno(output), SIZE_MAX);
    const int status = pclose(output);
    const double seconds = now_seconds() - start;
    if (status != 0 || (expected > 0 && got != expected)) {
        give_up(text_of("\"%.200s\" gave %zu bytes and status %d", command.c_str(), got, status));
    }
    return seconds;
}

// Many requests from one client over one connection.
static void measure_request(const std::string &through, const std::string &local, const effort &how, report *lines) {
    const int count = how.quick ? 200 : 1000;
    std::string requests = " send";
    for (int i = 0; i < count; i++) {
        requests += " AT";
    }
    std::vector<double> ours;
    std::vector<double> beside;
    std::vector<double> milliseconds;
    for (int run = 0; run < how.runs; run++) {
        ours.push_back(command_seconds(through + requests, 0) / count);
        usleep(kCloseUs);
        beside.push_back(command_seconds(local + requests, 0) / count);
        milliseconds.push_back(ours.back() * 1e3);
    }
    figure line;
    line.what = "through adb, AT to its answer";
    line.ours = seconds_text(median_of(ours));
    line.beside = "local " + seconds_text(median_of(beside));
    line.value = spread_of(milliseconds);
    line.unit = "ms";
    line.kind = AT_MOST;
    line.goal = 1;
    lines->push_back(line);
}

static void measure_bulk(desk *h, const std::string &through, const std::string &local, const effort &how,
                         report *lines) {
    const size_t size = how.quick ? 10000000 : 100000000;
    desk_write_file(h, kBulk, std::string(size, 'b'));
    const std::string cat = std::string(" cat ") + kBulk;
    std::vector<double> ours;
    std::vector<double> beside[3];
    for (int run = 0; run < how.runs; run++) {
        const double bytes = static_cast<double>(size);
        ours.push_back(bytes / command_seconds(through + " shell -n" + cat, size));
        beside[0].push_back(bytes / command_seconds("adb exec-out" + cat, size));
        beside[1].push_back(bytes / command_seconds("adb shell -t -t \"stty raw;\"" + cat, size));
        beside[2].push_back(bytes / command_seconds(local + " shell -n" + cat, size));
    }
    const char *names[] = {"adb exec-out", "adb shell -t", "local"};
    for (int i = 0; i < 3; i++) {
        figure line;
        line.what = "through adb, bytes a second through cat";
        line.ours = text_of("%.0f MB/s", median_of(ours) / 1e6);
        line.beside = text_of("%s %.0f MB/s", names[i], median_of(beside[i]) / 1e6);
        line.value = spread_of(ratios_of(ours, beside[i]));
        line.unit = "×";
        line.kind = i < 2 ? AT_LEAST : NO_GOAL;
        line.goal = 0.9;
        lines->push_back(line);
    }
}

// A fetch reads the set twice, the first time for the checksum, and unpacks it. A pull reads it once, without a check.
static void measure_fetch(desk *h, const std::string &through, const std::string &local, const effort &how,
                          report *lines) {
    const size_t size = how.quick ? 20000000 : 200000000;
    desk_make_dir(h, kSet);
    desk_write_file(h, kSetFile, std::string(size, 's'));
    const std::string copy = m_directory + "/copy";
    std::vector<double> ours;
    std::vector<double> beside[2];
    for (int run = 0; run < how.runs; run++) {
        const std::string afresh = "rm -rf " + copy;
        command_seconds(afresh, 0);
        ours.push_back(command_seconds(through + " fetch " + copy, 0));
        command_seconds(afresh, 0);
        beside[0].push_back(command_seconds("adb pull " + std::string(kSetFile) + " " + copy, 0));
        command_seconds(afresh, 0);
        beside[1].push_back(command_seconds(local + " fetch " + copy, 0));
    }
    const char *names[] = {"adb pull ", "local "};
    for (int i = 0; i < 2; i++) {
        figure line;
        line.what = "through adb, fetch of a set of 200 MB";
        line.ours = seconds_text(median_of(ours));
        line.beside = names[i] + seconds_text(median_of(beside[i]));
        line.value = spread_of(ratios_of(ours, beside[i]));
        line.unit = "×";
        lines->push_back(line);
    }
}

// Also stops the server when a measurement fails; it would outlive this program.
static void end_server() {
    if (!m_directory.empty() && system(("adb kill-server 2>/dev/null; rm -rf " + m_directory).c_str()) != 0) {
        perror(m_directory.c_str());
    }
    m_directory.clear();
}

void bench_adb(const effort &how, report *lines) {
    desk_options options = without_collectors();
    options.data_size = 256u << 20;
    options.sd_card_size = 512u << 20;
    desk *h = boot_handset(options);
    desk_child daemon;
    const std::string serial = start_daemon(h, &daemon);
    char directory[] = "/tmp/sa-bench-XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        give_up("mkdtemp");
    }
    m_directory = directory;
    atexit(end_server);
    setenv("HOME", directory, 1);
    setenv("XDG_RUNTIME_DIR", directory, 1);
    setenv("ADB_SERVER_SOCKET", ("localfilesystem:" + m_directory + "/server").c_str(), 1);
    setenv("ANDROID_SERIAL", serial.c_str(), 1);
    command_seconds("adb start-server 2>/dev/null", 0);
    command_seconds("adb connect " + serial, 0);
    const std::string through = std::string(BENCH_HOST) + " --adb";
    const std::string local = std::string(BENCH_HOST) + " --root " + desk_host_path(h, "/");
    command_seconds(through + " wait", 0);
    measure_request(through, local, how, lines);
    measure_bulk(h, through, local, how, lines);
    measure_fetch(h, through, local, how, lines);
    desk_end(h);
    end_server();
}
