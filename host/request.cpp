// Plain words to request bytes. Owns no state.

#include "request.h"

#include <strings.h>
#include <cstring>

#include "command_table.h"
#include "message.h"

namespace {

// The agent takes one read of at most this many bytes as a request; a longer one would be cut into two.
constexpr size_t REQUEST_MAX = 199;
constexpr size_t NAME_MAX_LEN = 39;  // the agent's name buffers hold 40 with the terminator
constexpr int UNKNOWN_TIMEOUT_S = 30;
const char *const PREFIX = "AT SA";

bool check_quoted(const char *what, const std::string &text, std::string *why) {
    if (text.empty()) {
        *why = text_of("The %s is empty: give one.", what);
        return false;
    }
    if (text.find('"') != std::string::npos) {
        *why = text_of(
            "The %s contains a double quote, which ends the argument on the wire and cannot be escaped: write it "
            "with single quotes.",
            what);
        return false;
    }
    if (text.find('\r') != std::string::npos) {
        *why = text_of("The %s contains a carriage return, which can end a request early: leave it out.", what);
        return false;
    }
    return true;
}

bool check_name(const std::string &name, std::string *why) {
    if (!check_quoted("service name", name, why)) {
        return false;
    }
    if (name.size() > NAME_MAX_LEN) {
        *why = text_of("The service name is %zu bytes long; the agent takes at most %zu.", name.size(), NAME_MAX_LEN);
        return false;
    }
    return true;
}

bool argument_autostart(const std::vector<std::string> &words, std::string *argument, std::string *why) {
    static const char *const actions[] = {"remove", "add", "query"};  // position: the number on the wire
    for (size_t i = 0; i < sizeof(actions) / sizeof(actions[0]); ++i) {
        if (words[0] == actions[i]) {
            *argument = text_of("=\"%s\",%zu", words[1].c_str(), i);
            return check_name(words[1], why);
        }
    }
    *why = text_of("\"%s\" is not an action of the auto-start list: use add, remove or query.", words[0].c_str());
    return false;
}

bool argument_switch(bool can_read, const std::string &word, std::string *argument, std::string *why) {
    if (word == "on" || word == "1") {
        *argument = "=1";
    } else if (word == "off" || word == "0") {
        *argument = "=0";
    } else if (can_read && (word == "query" || word == "?")) {
        *argument = "?";
    } else {
        *why = text_of("\"%s\" is not a state of the switch: use %s.", word.c_str(),
                       can_read ? "on, off or query" : "on or off (this switch cannot be read)");
        return false;
    }
    return true;
}

// The words of a command line, joined as those of a remote shell command are.
std::string joined(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        text += (&word == words.data() ? "" : " ") + word;
    }
    return text;
}

bool argument_of(request_shape shape, const std::vector<std::string> &words, std::string *argument, std::string *why) {
    switch (shape) {
        case SHAPE_NAME: *argument = "=\"" + words[0] + "\""; return check_name(words[0], why);
        case SHAPE_LIST: return argument_autostart(words, argument, why);
        case SHAPE_COMMAND:
            *argument = "=\"" + joined(words) + "\"";
            return check_quoted("command", joined(words), why);
        case SHAPE_SWITCH: return argument_switch(true, words[0], argument, why);
        case SHAPE_SETTING: return argument_switch(false, words[0], argument, why);
        case SHAPE_READING: *argument = "?"; return true;
        case SHAPE_BARE: break;
    }
    return true;
}

bool check_length(const request &made, std::string *why) {
    if (made.bytes.size() <= REQUEST_MAX) {
        return true;
    }
    *why = text_of(
        "The request is %zu bytes long with its prefix and carriage return; the agent takes at most %zu. "
        "Shorten it by %zu, or put a long command into a script on the handset.",
        made.bytes.size(), REQUEST_MAX, made.bytes.size() - REQUEST_MAX);
    return false;
}

int usual_timeout(const std::string &bytes) {
    for (const command_row &row : command_rows()) {
        if (row.request.at_name != nullptr && strcasestr(bytes.c_str(), row.request.at_name) != nullptr) {
            return row.request.timeout_s;
        }
    }
    return UNKNOWN_TIMEOUT_S;
}

}  // namespace

bool request_build(const std::string &word, const request_kind &kind, const std::vector<std::string> &operands,
                   request *out, std::string *why) {
    std::string argument;
    if (!argument_of(kind.shape, operands, &argument, why)) {
        return false;
    }
    out->title = word + (operands.empty() ? "" : " ") + joined(operands);
    out->bytes = PREFIX + std::string(kind.at_name) + argument + "\r";
    out->timeout_s = kind.timeout_s;
    return check_length(*out, why);
}

bool request_from_text(const std::string &text, request *out, std::string *why) {
    if (text.empty()) {
        *why = "The request is empty: give one, for example AT or +KERNEL_LOG?.";
        return false;
    }
    out->title = text;
    out->bytes = text;
    if (strncasecmp(text.c_str(), "AT", 2) != 0) {
        bool has_agent = text.compare(0, 2, "SA") == 0;
        out->bytes.insert(0, has_agent ? "AT " : PREFIX);
    }
    if (out->bytes.back() != '\r') {
        out->bytes += '\r';
    }
    out->timeout_s = usual_timeout(out->bytes);
    return check_length(*out, why);
}
