// logcat: prints the log, or keeps it in a rotated file. One thread, one connection to the log daemon, one output.
// Ends with status 0 after a dump or the help; with status 1 when an argument is wrong, the daemon is missing or goes
// away, or the output fails.
#include <android/log.h>
#include <cutils/properties.h>
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

#include "handset/logcat/event_tags.h"
#include "handset/logcat/options.h"
#include "handset/logcat/output.h"
#include "handset/logcat/resume.h"
#include "handset/logcat/source.h"
#include "handset/logd/event_values.h"

static constexpr char kEventTags[] = "/system/etc/event-log-tags";
static constexpr int kBackgroundPriority = 10;

// How separator lines are written (the property desk.logcat.separators=old chooses what releases before 2019 did) and
// which have been.
struct separators {
    bool are_wanted = true;
    unsigned told = 0;      // bit N: buffer N has had its first line
    unsigned buffer = ~0u;  // of the latest entry
};

static int fail(const char *text) {
    fprintf(stderr, "logcat: %s\n", text);
    return 1;
}

static int fail_errno(const char *text) {
    fprintf(stderr, "logcat: %s: %s\n", text, strerror(errno));
    return 1;
}

static bool property_is(const char *name, const char *wanted) {
    char value[PROPERTY_VALUE_MAX];
    property_get(name, value, "");
    return strcmp(value, wanted) == 0;
}

static bool is_one_buffer(unsigned buffers) {
    return (buffers & (buffers - 1)) == 0;
}

// A collector must not take time from what it watches.
static void go_to_background() {
    struct sched_param none = {};
    if (sched_setscheduler(0, SCHED_BATCH, &none) == -1) {
        fprintf(stderr, "failed to set to batch scheduler\n");
    }
    const bool is_lower = getpriority(PRIO_PROCESS, 0) >= kBackgroundPriority;  // whoever is lower stays there
    if (!is_lower && setpriority(PRIO_PROCESS, 0, kBackgroundPriority) == -1) {
        fprintf(stderr, "failed set to priority\n");
    }
}

static bool open_output(const logcat_options &options, log_output *output) {
    output->file = options.file;
    output->rotate_kib = options.rotate_kib;
    output->older_files = options.older_files;
    if (output->file.empty()) {
        return true;
    }
    go_to_background();
    return output_open(output, property_is("desk.logcat.preallocate", "1"));
}

// The line that tells a buffer's first entry. It does not count towards the size at which the file is rotated.
static bool separate(separators *state, bool tells_switches, unsigned buffer, log_output *output) {
    const bool is_known = (state->told >> buffer & 1) != 0;
    const bool is_due = buffer != state->buffer && (!is_known || tells_switches);
    state->told |= 1u << buffer;
    state->buffer = buffer;
    if (!state->are_wanted || !is_due) {
        return true;
    }
    const char *what = is_known ? "switch to" : "beginning of";
    return output_write(output, std::string("--------- ") + what + " " + log_buffer_name(buffer) + "\n");
}

// Takes a record apart for printing; false when it is malformed.
static bool read_entry(const log_answer &answer, const event_tags &tags, log_print *out) {
    out->sec = answer.header.sec;
    out->nsec = answer.header.nsec;
    out->pid = answer.header.pid;
    out->tid = static_cast<int>(answer.header.tid);
    if (log_buffer_is_binary(answer.header.buffer)) {
        log_event event;
        if (!log_split_event(answer.payload, answer.header.length, &event)) {
            return false;
        }
        out->priority = ANDROID_LOG_INFO;
        out->tag = event_tags_name(tags, event.number);
        log_event_text(event.values, event.values_length, &out->text);
        return true;
    }
    log_text parts;
    if (!log_split_text(answer.payload, answer.header.length, &parts)) {
        return false;
    }
    out->priority = parts.priority;
    out->tag.assign(parts.tag, parts.tag_length);
    out->text.assign(parts.text, parts.text_length);
    return true;
}

static bool print_entry(const logcat_options &options, const event_tags &tags, const log_answer &answer,
                        log_output *output) {
    log_print entry;
    if (!read_entry(answer, tags, &entry) || !log_filter_passes(options.filter, entry.tag, entry.priority)) {
        return true;
    }
    const std::string lines = log_format_entry(options.format, entry);
    return output_write(output, lines) && output_count(output, lines.size());
}

static int copy_entries(const logcat_options &options, int source, log_output *output) {
    const event_tags tags = event_tags_read(kEventTags);
    separators state;
    state.are_wanted = !is_one_buffer(options.buffers) || !property_is("desk.logcat.separators", "old");
    log_answer answer;
    source_result result;
    while ((result = source_next(source, &answer)) == SOURCE_ENTRY) {
        if (!separate(&state, options.tells_switches, answer.header.buffer, output) ||
            !print_entry(options, tags, answer, output)) {
            return fail_errno("Output error");
        }
    }
    switch (result) {
        case SOURCE_END: return options.is_dump ? 0 : fail("Unexpected EOF!");
        case SOURCE_BAD_LENGTH: return fail("Unexpected length.");
        default: return fail_errno("Logcat read failure");
    }
}

int main(int argc, char **argv) {
    logcat_options options;
    std::string error;
    if (!logcat_parse(argc, argv, &options, &error)) {
        if (!error.empty()) {
            return fail(error.c_str());
        }
        fputs(kLogcatHelp, stdout);
        return 0;
    }
    const std::string after =
        options.file.empty() || options.has_tail ? "" : resume_after(options.file.c_str(), time(nullptr));
    log_output output;
    if (!open_output(options, &output)) {
        return fail_errno("Couldn't open output file");
    }
    const int source = source_open(options, after);
    if (source == -1) {
        return fail_errno("Logcat read failure");
    }
    return copy_entries(options, source, &output);
}
