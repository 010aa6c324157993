// The command channel's conversation: one request, one answer, framed by its final line. Owns its turn.

#include "channel.h"

#include <poll.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "link.h"
#include "message.h"
#include "request_log.h"
#include "stream.h"

namespace {

constexpr size_t ANSWER_MAX = 4096;  // the agent's longest answer has 199 bytes; more is a stranger's chatter
constexpr int SHOW_WAIT_MS = 1000;
constexpr int SHOW_STEP_MS = 500;
constexpr int REPLACE_MS = 1000;  // the agent replaces its channel within milliseconds
constexpr int REPLACE_STEP_MS = 1;

constexpr int HOST_LOST = -1;  // no host_status: the agent hung up before it answered anything

// What the agent has published, as it was when a turn began.
struct published {
    std::string channel;
    std::string listener;
};

struct answer {
    std::string bytes;   // as read
    std::string result;  // the result line, empty when there is none
    bool is_ok = false;
    long code = 0;  // of an ERROR
};

// Takes an answer apart once its final line, OK or ERROR, is there. Result: whether it is.
bool parse_answer(answer *reply) {
    size_t at = 0;
    for (size_t end; (end = reply->bytes.find("\r\n", at)) != std::string::npos; at = end + 2) {
        std::string line = reply->bytes.substr(at, end - at);
        if (line == "OK") {
            reply->is_ok = true;
            return true;
        }
        if (line.compare(0, 7, "ERROR: ") == 0) {
            reply->code = strtol(line.c_str() + 7, nullptr, 10);
            return true;
        }
        if (!line.empty()) {
            reply->result = line;
        }
    }
    return false;
}

void show_elapsed(const request &asked, int64_t start) {
    int64_t elapsed = now_ms() - start;
    if (elapsed >= SHOW_WAIT_MS) {
        progress_show(text_of("%s: %s", asked.title.c_str(), in_time(static_cast<uint64_t>(elapsed / 1000)).c_str()));
    }
}

int say_no_answer(const host_options &options, const request &asked, long got, int seconds) {
    std::string loss = got == 0 ? link_loss(options) : "";
    if (!loss.empty()) {
        say("%s Whether the request \"%s\" was carried out is unknown.", loss.c_str(), asked.title.c_str());
    } else if (got == 0) {
        say("The agent closed the channel before it answered \"%s\": it ended or was restarted. Whether the request "
            "was carried out is unknown; check, then try again.",
            asked.title.c_str());
    } else if (errno == ETIMEDOUT) {
        say("No answer to \"%s\" within %d s: the agent is still at it, or hangs. Try again with a longer --timeout, "
            "or see sa-host log.",
            asked.title.c_str(), seconds);
    } else {
        say("Reading the answer to \"%s\" failed: %s.", asked.title.c_str(), strerror(errno));
    }
    return HOST_NO_WAY;
}

// Reads until the answer is complete. Result: HOST_OK when it is, HOST_LOST when the agent hung up before it answered
// anything, else HOST_NO_WAY with the sentence said.
int read_answer(const host_options &options, int fd, const request &asked, int seconds, answer *reply) {
    int64_t start = now_ms();
    int64_t deadline = start + seconds * INT64_C(1000);
    while (!parse_answer(reply)) {
        char buf[512];
        long got = read_some(fd, buf, sizeof(buf), std::min(deadline, now_ms() + SHOW_STEP_MS));
        if (got < 0 && errno == ETIMEDOUT && now_ms() < deadline) {
            show_elapsed(asked, start);
            continue;
        }
        if (got == 0 && reply->bytes.empty()) {
            return HOST_LOST;
        }
        if (got <= 0) {
            return say_no_answer(options, asked, got, seconds);
        }
        reply->bytes.append(buf, static_cast<size_t>(got));
        if (reply->bytes.size() > ANSWER_MAX) {
            say("The %zu bytes read are no answer of the agent. Check --channel.", reply->bytes.size());
            return HOST_NO_WAY;
        }
    }
    progress_clear();
    return HOST_OK;
}

// The bytes of one direction, with everything that is no printable ASCII made visible.
void print_raw(const char *direction, const std::string &bytes) {
    std::string shown;
    for (char byte : bytes) {
        unsigned char c = static_cast<unsigned char>(byte);
        if (c == '\r') {
            shown += "\\r";
        } else if (c == '\n') {
            shown += "\\n";
        } else if (c == '\\') {
            shown += "\\\\";
        } else {
            shown += isprint(c) != 0 ? std::string(1, byte) : text_of("\\x%02x", c);
        }
    }
    print("%s %s\n", direction, shown.c_str());
}

int judge_answer(const host_options &options, const request &asked, const answer &reply) {
    if (reply.is_ok) {
        return HOST_OK;
    }
    say("The agent answered ERROR: %ld to \"%s\".%s", reply.code, asked.title.c_str(),
        options.is_verbose ? "" : " With -v sa-host shows the lines that a request leaves in the handset's log.");
    return HOST_ERROR;
}

// One request and its answer. Result: a host_status, with failures said.
int converse(const host_options &options, const link_turn &turn, const request &asked, answer *reply) {
    int seconds = options.timeout_s > 0 ? options.timeout_s : asked.timeout_s;
    link_discard_input(turn);
    if (write_all(turn.fd, asked.bytes.data(), asked.bytes.size(), now_ms() + seconds * INT64_C(1000)) != 0) {
        if (errno == EIO || errno == EPIPE || errno == ECONNRESET) {
            return HOST_LOST;
        }
        say("The request \"%s\" could not be written: %s. Check that the agent runs, then try again.",
            asked.title.c_str(), strerror(errno));
        return HOST_NO_WAY;
    }
    if (options.is_raw) {
        print_raw(">", asked.bytes);
    }
    int status = read_answer(options, turn.fd, asked, seconds, reply);
    if (options.is_raw && !reply->bytes.empty()) {
        print_raw("<", reply->bytes);
    }
    if (options.is_verbose && status != HOST_LOST) {
        request_log_show(options);  // within the turn: no other request comes in between
    }
    return status == HOST_OK ? judge_answer(options, asked, *reply) : status;
}

// Whether the agent replaced the channel although this client held it open. It does that only when a client before this
// one left the channel and this one opened it before the agent noticed: then nothing of this client's request has been
// read. An agent that was started anew has published its listener anew, too, and may have read the request before.
bool is_replaced_unread(const host_options &options, const published &before) {
    if (before.channel.empty()) {
        return false;  // this kind of link cannot tell
    }
    int64_t deadline = now_ms() + REPLACE_MS;
    std::string channel;
    while ((channel = link_identity(options, LINK_CHANNEL)).empty() || channel == before.channel) {
        if (now_ms() >= deadline) {
            return false;
        }
        poll(nullptr, 0, REPLACE_STEP_MS);
    }
    return !before.listener.empty() && link_identity(options, LINK_LISTENER) == before.listener;
}

bool begin_turn(const host_options &options, int64_t deadline, link_turn *turn, published *now) {
    if (!link_begin(options, LINK_CHANNEL, deadline, turn)) {
        return false;
    }
    now->channel = link_identity(options, LINK_CHANNEL);
    now->listener = link_identity(options, LINK_LISTENER);
    return true;
}

// The first request of a turn, in as many turns as it takes until the agent reads it. One that was answered proves that
// the agent reads this turn's requests.
int converse_first(const host_options &options, const request &asked, link_turn *turn, answer *reply) {
    int seconds = options.timeout_s > 0 ? options.timeout_s : asked.timeout_s;
    int64_t deadline = now_ms() + seconds * INT64_C(1000);
    published before;
    for (;;) {
        if (!begin_turn(options, deadline, turn, &before)) {
            return HOST_NO_WAY;
        }
        *reply = answer();
        int status = converse(options, *turn, asked, reply);
        if (status != HOST_LOST) {
            return status;
        }
        link_end(turn);
        if (!is_replaced_unread(options, before)) {
            return say_no_answer(options, asked, 0, seconds);
        }
    }
}

}  // namespace

int channel_send(const host_options &options, const std::vector<request> &requests) {
    link_turn turn;
    int status = HOST_OK;
    for (size_t i = 0; i < requests.size() && status == HOST_OK; ++i) {
        answer reply;
        status =
            i == 0 ? converse_first(options, requests[i], &turn, &reply) : converse(options, turn, requests[i], &reply);
        if (status == HOST_LOST) {
            status = say_no_answer(options, requests[i], 0, 0);
        }
        if (status == HOST_OK && !options.is_raw) {
            print("%s\n", reply.result.empty() ? "OK" : reply.result.c_str());
        }
    }
    link_end(&turn);
    return status;
}

int channel_ask(const host_options &options, const request &asked, std::string *result) {
    link_turn turn;
    answer reply;
    int status = converse_first(options, asked, &turn, &reply);
    link_end(&turn);
    *result = reply.result;
    return status;
}
