// logcat: prints the log, or keeps it in a rotated file. One thread. Ends with status 0 after a dump or the help; with
// status 1 when an argument is wrong, the daemon does not run or ends, or the output fails.
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

#include <fstream>
#include <map>

#include "handset/logcat/format.h"
#include "handset/logcat/options.h"
#include "handset/logcat/output.h"
#include "handset/logcat/resume.h"
#include "handset/logcat/source.h"
#include "handset/logd/wire.h"

static const char kEventTags[] = "/system/etc/event-log-tags";
static const int kBackgroundPriority = 10;

static int fail(const std::string &text) {
    fprintf(stderr, "logcat: %s\n", text.c_str());
    return 1;
}

static int fail_errno(const std::string &text) {
    return fail(text + ": " + strerror(errno));
}

static bool open_output(const logcat_options &options, log_output *output) {
    output->file = options.file;
    output->rotate_kib = options.rotate_kib;
    output->older_files = options.older_files;
    if (output->file.empty()) {
        return true;
    }
    const struct sched_param none = {};
    const bool is_low = getpriority(PRIO_PROCESS, 0) >= kBackgroundPriority;  // only root may raise it again
    if (sched_setscheduler(0, SCHED_BATCH, &none) != 0 ||
        (!is_low && setpriority(PRIO_PROCESS, 0, kBackgroundPriority) != 0)) {
        fprintf(stderr, "failed to set a low priority\n");  // as on a device, it runs all the same
    }
    return output_open(output);
}

// Names of binary records by number, from lines such as "1006 liblog (dropped|1)".
static std::map<std::string, std::string> read_event_tags() {
    std::map<std::string, std::string> tags;
    std::ifstream file(kEventTags);
    for (std::string line; std::getline(file, line);) {
        const size_t blank = line.find(' ');
        if (blank != std::string::npos) {
            tags[line.substr(0, blank)] = line.substr(blank + 1, line.find(' ', blank + 1) - blank - 1);
        }
    }
    return tags;
}

static bool is_binary(unsigned buffer) {
    const std::string name = log_buffer_name(buffer);
    return name == "events" || name == "stats" || name == "security";
}

// Prints an entry. The first one of a buffer has a separator line, which does not count for the rotation.
static bool print(const logcat_options &options, const log_entry &entry, unsigned *announced, log_output *output) {
    if ((*announced >> entry.buffer & 1) == 0) {
        *announced |= 1u << entry.buffer;
        if (!output_write(output, std::string("--------- beginning of ") + log_buffer_name(entry.buffer) + "\n")) {
            return false;
        }
    }
    if (!logcat_filter(options, entry.tag, log_priority_number(entry.letter))) {
        return true;
    }
    const std::string lines = format_entry(options, entry);
    return output_write(output, lines) && output_count(output, lines.size());
}

static int copy_entries(const logcat_options &options, log_source *source, log_output *output) {
    const std::map<std::string, std::string> tags = read_event_tags();
    unsigned announced = 0;  // bit N: the separator of buffer N has been printed
    log_entry entry;
    source_result result;
    while ((result = source_next(source, &entry)) == SOURCE_ENTRY) {
        if (is_binary(entry.buffer)) {
            const auto found = tags.find(entry.tag);
            entry.tag = found != tags.end() ? found->second : "[" + entry.tag + "]";
        }
        if (!print(options, entry, &announced, output)) {
            return fail_errno("Output error");
        }
    }
    if (result == SOURCE_ERROR) {
        return fail_errno("Logcat read failure");
    }
    return options.is_dump ? 0 : fail("Unexpected EOF!");
}

int main(int argc, char **argv) {
    logcat_options options;
    std::string error;
    if (!logcat_parse(argc, argv, &options, &error)) {
        if (!error.empty()) {
            return fail(error);
        }
        fputs(kLogcatHelp, stdout);
        return 0;
    }
    const uint64_t after_ns = options.file.empty() ? 0 : resume_after(options.file, time(nullptr));
    log_output output;
    if (!open_output(options, &output)) {
        return fail_errno("Couldn't open output file");
    }
    log_source source;
    if (!source_open(options, after_ns, &source)) {
        return fail_errno("Logcat read failure");
    }
    return copy_entries(options, &source, &output);
}
