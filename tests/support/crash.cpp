// Looks at both logs: either of them can be what a test has removed or made unwritable. No state.
#include "tests/support/crash.h"

#include "handset/desk/desk.h"

static bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// A pipe or a device that a test has put in the file's place is not to be read.
static std::string file_text(desk *h, const std::string &path) {
    struct stat st;
    return desk_stat(h, path, &st) && S_ISREG(st.st_mode) ? desk_file_text(h, path) : "";
}

std::string crash_of(desk *h) {
    const std::string file = file_text(h, "/data/local/log/sa.log");
    const std::vector<desk_log_entry> log = desk_log(h, "zr-qel-sa");
    for (const char *line : {"signal[11-SIGSEGV]", "signal[7-SIGBUS]"}) {
        if (has(file, line)) {
            return line;
        }
        for (const desk_log_entry &entry : log) {
            if (has(entry.text, line)) {
                return line;
            }
        }
    }
    return "";
}
