// The lines of one request, found in the platform log by the thread that wrote them. Owns no state.

#include "request_log.h"

#include <cstdio>
#include <vector>

#include "message.h"
#include "remote.h"

namespace {

constexpr int QUIET_S = 30;
const char *const FIRST = ": receive <== ";                               // its newest line is the latest request
const char *const LAST = ": sa_handle_read_cmd_loop handle_sa_cmd_req(";  // and this is the result

// "MM-DD hh:mm:ss.mmm  PID  TID P TAG: text": process and thread as they are written. "" for a line of another form.
std::string thread_of(const std::string &line) {
    int from = 0;
    int to = 0;
    sscanf(line.c_str(), "%*u-%*u %*u:%*u:%*u.%*u %n%*u %*u%n", &from, &to);
    return to > from ? line.substr(static_cast<size_t>(from), static_cast<size_t>(to - from)) : std::string();
}

// The lines of a text. A line that does not begin as the log's do goes on with the one before.
std::vector<std::string> entries_of(const std::string &text) {
    std::vector<std::string> entries;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        std::string line = text.substr(at, end - at);
        if (!thread_of(line).empty() || entries.empty()) {
            entries.push_back(line);
        } else {
            entries.back() += "\\n" + line;
        }
    }
    return entries;
}

void show_entry(const std::string &entry) {
    std::string shown;
    for (char byte : entry) {
        shown += byte == '\r' ? std::string("\\r") : std::string(1, byte);
    }
    fprintf(stderr, "  | %s\n", shown.c_str());
}

}  // namespace

void request_log_show(const host_options &options) {
    std::string out;
    int status =
        remote_output(options, "logcat -d -v threadtime -s zr-qel-sa zr-qel-pub|tail -n 2000", QUIET_S, nullptr, &out);
    if (status < 0) {
        return;
    }
    std::vector<std::string> entries = entries_of(out);
    size_t first = entries.size();
    while (first > 0 && entries[first - 1].find(FIRST) == std::string::npos) {
        --first;
    }
    if (first == 0) {
        say("The handset's platform log has no line of the request. sa-host log shows the agent's own log.");
        return;
    }
    std::string thread = thread_of(entries[first - 1]);
    for (size_t i = first - 1; i < entries.size(); ++i) {
        if (thread_of(entries[i]) == thread) {
            show_entry(entries[i]);
            if (entries[i].find(LAST) != std::string::npos) {
                return;
            }
        }
    }
}
