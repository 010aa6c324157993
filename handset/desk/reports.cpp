// Reports of sanitizers inside a handset. A service has no visible standard error, so the reports are written to files,
// which the program that booted the handset prints. In a build with counters of lines the files of those are there too, and
// go to the directory COVERAGE_PROFILES of the environment. Other builds have none. State: in the handle, the directory.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>

#include "handset/common/paths.h"
#include "handset/desk/handle.h"

#define REPORTS DESK_DIR "/reports"
#define DEFAULT_SIGNALS "handle_segv=0:handle_sigbus=0:handle_sigfpe=0"

// A test may preload a library before the sanitizer's own, and tests send signals that the sanitizer would handle.
static const char *const kSanitizers[][2] = {
    {"ASAN_OPTIONS", "verify_asan_link_order=0:" DEFAULT_SIGNALS},
    {"UBSAN_OPTIONS", "print_stacktrace=1"},
    {"LSAN_OPTIONS", ""},
    // The agent's handler makes ordinary calls by design (sa/main/signals.cpp); races are what this sanitizer is run for.
    {"TSAN_OPTIONS", "history_size=4:report_signal_unsafe=0:" DEFAULT_SIGNALS},
};

std::vector<std::string> reports_environment() {
    std::vector<std::string> all;
    for (const auto &sanitizer : kSanitizers) {
        const char *own = getenv(sanitizer[0]);
        all.push_back(std::string(sanitizer[0]) + "=" + sanitizer[1] + ":" + (own != nullptr ? own : "") +
                      ":log_path=" REPORTS "/report");
    }
    return SANITIZED ? all : std::vector<std::string>();
}

bool reports_open(desk *h) {
    if (!SANITIZED && getenv("COVERAGE_PROFILES") == nullptr) {
        return true;
    }
    if (!desk_make_dir(h, REPORTS, 01777)) {
        return false;
    }
    h->reports = desk_open(h, REPORTS, O_RDONLY | O_DIRECTORY);
    return h->reports >= 0;
}

static std::string text_of(int directory, const std::string &name) {
    std::string text;
    const int fd = openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        read_all(fd, &text);
        close(fd);
    }
    return text;
}

static bool is_profile(const std::string &name) {
    const std::string ending = ".profraw";
    return name.size() > ending.size() && name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

// Process ids are the handset's, so the name outside is a new one.
static void keep_profile(const std::string &counters) {
    std::string path = std::string(getenv("COVERAGE_PROFILES")) + "/XXXXXX.profraw";
    const int fd = mkostemps(&path[0], 8, O_CLOEXEC);
    if (fd < 0 || write(fd, counters.data(), counters.size()) != static_cast<ssize_t>(counters.size())) {
        perror(path.c_str());
    }
    if (fd >= 0) {
        close(fd);
    }
}

// At the end of a process the sanitizer traces it to find leaks. When a test traces it already, or a thread ends
// meanwhile, the sanitizer reports that it could not: such lines are no finding.
static bool is_note(const std::string &line) {
    for (const char *part : {"LeakSanitizer has encountered a fatal error", "HINT: ", "was not suspended"}) {
        if (line.find(part) != std::string::npos) {
            return true;
        }
    }
    return line.empty();
}

static bool is_finding(const std::string &text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!is_note(line)) {
            return true;
        }
    }
    return false;
}

void reports_close(desk *h) {
    if (h->reports < 0) {
        return;
    }
    bool found = false;
    for (const std::string &name : names_in(dup(h->reports))) {
        const std::string text = text_of(h->reports, name);
        if (is_profile(name)) {
            keep_profile(text);
        } else if (is_finding(text)) {
            found = true;
            fprintf(stderr, "---- %s\n%s", name.c_str(), text.c_str());
        }
    }
    close(h->reports);
    h->reports = -1;
    if (found) {
        fprintf(stderr, "---- a sanitizer has reported inside the handset: see above\n");
        abort();
    }
}
