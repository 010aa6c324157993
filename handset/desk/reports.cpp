// What the run-time parts of sanitizers report inside a handset: nobody sees the standard error of a service, so the
// reports go to files, and end up with the program that booted the handset. In a build without sanitizers there is
// nothing to do. State: the handle's directory of reports.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>

#include "handle.h"

#define REPORTS "/dev/.desk/reports"
#define OWN_SIGNALS "handle_segv=0:handle_sigbus=0:handle_sigfpe=0"

// What a test preloads stands in front of the sanitizer's library, which would not have it; and signals that a process may be
// sent from outside do what they do without a sanitizer.
static const char *const m_sanitizers[][2] = {
    {"ASAN_OPTIONS", "verify_asan_link_order=0:" OWN_SIGNALS},
    {"UBSAN_OPTIONS", "print_stacktrace=1"},
    {"LSAN_OPTIONS", ""},
    {"TSAN_OPTIONS", "history_size=4:" OWN_SIGNALS},
};

std::vector<std::string> reports_environment() {
    std::vector<std::string> all;
    for (const auto &sanitizer : m_sanitizers) {
        const char *own = getenv(sanitizer[0]);
        all.push_back(std::string(sanitizer[0]) + "=" + sanitizer[1] + ":" + (own != nullptr ? own : "") +
                      ":log_path=" REPORTS "/report");
    }
    return SANITIZED ? all : std::vector<std::string>();
}

bool reports_open(desk *h) {
    if (!SANITIZED) {
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
    char buf[4096];
    for (ssize_t got = 0; fd >= 0 && (got = read(fd, buf, sizeof(buf))) > 0;) {
        text.append(buf, static_cast<size_t>(got));
    }
    if (fd >= 0) {
        close(fd);
    }
    return text;
}

// Leaks are looked for at the end of a process, by tracing it. Where that fails, because a test traces it already or a
// thread ends meanwhile, the sanitizer says so: lines that are no finding.
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
        if (is_finding(text)) {
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
