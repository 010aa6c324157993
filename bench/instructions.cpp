// Instructions of the hot paths, counted by callgrind, which other work on the machine does not change. Each path runs n
// and 2n times, and the difference is the path's own count. Prints a comparison with a table in the tree. No state.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fcntl.h>
#include <fstream>
#include <map>
#include <sstream>

#include "bench/benches.h"
#include "bench/handsets.h"

static const int kTimes = 200;
static const char kProfile[] = "/data/profile";

struct path {
    const char *name;
    std::vector<std::string> words;  // arguments of /desk/inside; COUNT is replaced by the number of runs
};

static const std::vector<path> kPaths = {
    {"line", {"go-line", "COUNT"}},
    {"request-at", {"go-request", "COUNT", "AT"}},
    {"request-unknown", {"go-request", "COUNT", "AT SA+NOTHING"}},
    {"request-kernel-log", {"go-request", "COUNT", "AT SA+KERNEL_LOG?"}},
    {"lookup", {"go-lookup", "COUNT"}},
};

static double total_of(desk *h) {
    const std::string profile = desk_file_text(h, kProfile);
    const size_t at = profile.find("\nsummary: ");
    if (at == std::string::npos) {
        give_up("callgrind left no profile");
    }
    return atof(profile.c_str() + at + 10);
}

static std::vector<std::string> under_callgrind(const std::vector<std::string> &words) {
    std::vector<std::string> argv = {"/usr/bin/valgrind", "--tool=callgrind",
                                     std::string("--callgrind-out-file=") + kProfile, "/desk/inside"};
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
}

static double instructions_of(desk *h, std::vector<std::string> words, int count) {
    words[1] = std::to_string(count);
    desk_program program;
    program.argv = under_callgrind(words);
    const desk_result result = desk_run(h, program, "", 120000);
    if (result.status != 0) {
        give_up("callgrind: " + result.errors);
    }
    return total_of(h);
}

static double count_path(desk *h, const path &hot) {
    return (instructions_of(h, hot.words, 2 * kTimes) - instructions_of(h, hot.words, kTimes)) / kTimes;
}

// ---- the kernel-message reader, which never returns

static double instructions_of_pieces(desk *h, int pieces) {
    const int stream = desk_open(h, "/proc/kmsg", O_RDWR | O_CLOEXEC);
    desk_child reader = start_program(h, under_callgrind({"go-kmsg"}));
    fcntl(stream, F_SETPIPE_SZ, 1 << 20);
    write_text(stream, std::string(99 * static_cast<size_t>(pieces), 'k'));
    const bool is_read = desk_until(
        [&] {
            int unread = 1;
            return ioctl(stream, FIONREAD, &unread) == 0 && unread == 0;
        },
        60000);
    close(stream);
    desk_kill(h, reader.pid, SIGTERM);
    desk_wait(h, &reader, 20000);
    if (!is_read) {
        give_up("kernel messages are not read");
    }
    return total_of(h);
}

static double count_kmsg(desk *h) {
    const int pieces = 10 * kTimes;
    return (instructions_of_pieces(h, 2 * pieces) - instructions_of_pieces(h, pieces)) / pieces;
}

// ---- the table

typedef std::map<std::string, double> table;

static table read_table(const std::string &path) {
    table known;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string name;
        double count;
        if (line[0] != '#' && words >> name >> count) {
            known[name] = count;
        }
    }
    return known;
}

static void write_table(const table &counted, const std::string &path) {
    std::ofstream file(path);
    file << "# Instructions of the agent's hot paths, as callgrind counts them; written by `bench/run --record`.\n";
    for (const auto &row : counted) {
        file << row.first << " " << text_of("%.0f", row.second) << "\n";
    }
}

static void compare(const table &counted, const table &known) {
    printf("instructions\n");
    for (const auto &row : counted) {
        const auto before = known.find(row.first);
        if (before == known.end()) {
            printf("  %-20s %8.0f  new\n", row.first.c_str(), row.second);
        } else {
            printf("  %-20s %8.0f  table %8.0f  %+.1f %%\n", row.first.c_str(), row.second, before->second,
                   (row.second / before->second - 1) * 100);
        }
    }
}

void bench_instructions(const std::string &path, bool record) {
    desk_options options = without_collectors();
    options.agent = false;
    desk *h = boot_handset(options);
    table counted;
    for (const struct path &hot : kPaths) {
        counted[hot.name] = count_path(h, hot);
    }
    counted["kmsg-piece"] = count_kmsg(h);
    desk_end(h);
    compare(counted, read_table(path));
    if (record) {
        write_table(counted, path);
    }
}
