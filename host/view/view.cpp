// The sub-command `view`. Owns no state.

#include "view/view.h"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "message.h"
#include "view/html_output.h"
#include "view/text_output.h"

namespace {

std::string source_list() {
    std::string list;
    for (const char *name : SOURCE_NAMES) {
        list += list.empty() ? name : std::string(", ") + name;
    }
    return list;
}

bool choose_source(const std::string &name, log_choice *choice) {
    for (int i = 0; i < SOURCE_COUNT; ++i) {
        if (name == SOURCE_NAMES[i]) {
            choice->is_left_out[i] = false;
            return true;
        }
    }
    say("\"%s\" is not a source. The sources are: %s.", name.c_str(), source_list().c_str());
    return false;
}

bool choose_sources(const std::string &only, log_choice *choice) {
    if (only.empty()) {
        return true;
    }
    for (bool &is_left_out : choice->is_left_out) {
        is_left_out = true;
    }
    size_t at = 0;
    while (at <= only.size()) {
        size_t end = std::min(only.find(',', at), only.size());
        if (!choose_source(only.substr(at, end - at), choice)) {
            return false;
        }
        at = end + 1;
    }
    return true;
}

bool choose_bound(const std::string &text, const log_set &set, bool is_end, int64_t *us) {
    if (text.empty() || time_read_bound(text, set.saved, is_end, us)) {
        return true;
    }
    say("\"%s\" is not a time: give [[YYYY-]MM-DD ]hh:mm[:ss[.fraction]], as in \"01-31 23:59:59.5\".", text.c_str());
    return false;
}

// `*pattern` is compiled, to be freed by the caller, when the choice refers to it.
bool choose_pattern(const std::string &text, log_choice *choice, regex_t *pattern) {
    if (text.empty()) {
        return true;
    }
    int error = regcomp(pattern, text.c_str(), REG_EXTENDED | REG_NOSUB);
    if (error == 0) {
        choice->pattern = pattern;
        return true;
    }
    char why[128];
    regerror(error, pattern, why, sizeof(why));
    say("\"%s\" is not a regular expression: %s.", text.c_str(), why);
    return false;
}

bool choose(const log_set &set, const view_request &request, log_choice *choice, regex_t *pattern) {
    return choose_sources(request.only, choice) && choose_bound(request.since, set, false, &choice->since) &&
           choose_bound(request.until, set, true, &choice->until) && choose_pattern(request.grep, choice, pattern);
}

// What a reader must know to trust the times and the set.
std::vector<std::string> notes_on(const log_set &set, const merge_result &result) {
    std::vector<std::string> notes;
    if (!set.missing.empty()) {
        notes.push_back("The set is incomplete: it has no " + set.missing + ". save-log was interrupted.");
    }
    if (result.is_kernel_estimated) {
        notes.push_back(
            "Times of kernel messages are estimated: the set does not tell when the handset had booted. fetch records "
            "that in handset.txt.");
    }
    if (result.has_packets && !set.is_zone_known) {
        notes.push_back(
            "Times of packets assume that the handset has this machine's time zone: the set does not tell its own.");
    }
    return notes;
}

int show_text(const log_set &set, const log_choice &choice) {
    text_output out;
    text_output_open(&out);
    merge_result result = merge_run(set, choice, text_output_take, &out);
    text_output_close(&out);
    for (const std::string &note : notes_on(set, result)) {
        say("%s", note.c_str());
    }
    return HOST_OK;
}

int write_page(const log_set &set, const log_choice &choice, const std::string &path) {
    html_output out;
    if (!html_output_open(&out, path)) {
        return HOST_ERROR;
    }
    merge_result result = merge_run(set, choice, html_output_take, &out);
    std::vector<std::string> notes = notes_on(set, result);
    int status = html_output_close(&out, set.name, notes);
    for (const std::string &note : notes) {
        say("%s", note.c_str());
    }
    if (status == HOST_OK) {
        print("%s: %llu lines.\n", path.c_str(), static_cast<unsigned long long>(result.entries));
    }
    return status;
}

int say_no_logs(const std::string &path) {
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0) {
        say("%s cannot be read: %s.", path.c_str(), strerror(errno));
    } else if (!S_ISDIR(st.st_mode)) {
        say("%s is not a directory: give the directory of a log set.", path.c_str());
    } else {
        say("%s holds no log set and no collector's file. sa-host fetch copies a set from a handset.", path.c_str());
    }
    return HOST_ERROR;
}

}  // namespace

int view_set(const std::string &path, const view_request &request) {
    log_set set;
    if (!log_set_read(path, &set)) {
        return log_set_list(path) > 0 ? HOST_OK : say_no_logs(path);
    }
    log_choice choice;
    regex_t pattern;
    int status = HOST_REFUSED;
    if (choose(set, request, &choice, &pattern)) {
        status = request.html.empty() ? show_text(set, choice) : write_page(set, choice, request.html);
    }
    if (choice.pattern != nullptr) {
        regfree(&pattern);
    }
    return status;
}
