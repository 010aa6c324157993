// Waiting for the agent to come or to go. Owns no state.

#include "wait.h"

#include <poll.h>
#include <climits>

#include "channel.h"
#include "link.h"
#include "message.h"

namespace {

constexpr int STEP_MS = 250;
constexpr int ABSENT_TIMES = 5;  // counted, not timed: a machine may stand still between two looks
constexpr int TRIES = 3;         // an agent that is being restarted may hang up on the first

void pause(const char *what, int64_t start) {
    progress_show(text_of("waiting for the agent to %s: %s", what,
                          in_time(static_cast<uint64_t>((now_ms() - start) / 1000)).c_str()));
    poll(nullptr, 0, STEP_MS);
}

int wait_up(const host_options &options, int64_t start, int64_t deadline) {
    request attention;
    std::string why;
    std::string result;
    request_from_text("AT", &attention, &why);
    host_options own = options;
    own.is_patient = true;
    own.timeout_s = static_cast<int>((deadline - start) / 1000);
    int status = HOST_NO_WAY;
    for (int i = 0; i < TRIES && status == HOST_NO_WAY && now_ms() < deadline; ++i) {
        status = channel_ask(own, attention, &result);
    }
    const bool has_listener = link_carries(options, LINK_LISTENER);
    while (status == HOST_OK && has_listener && !link_is_present(options, LINK_LISTENER)) {
        if (now_ms() >= deadline) {
            say("The agent answers on its command channel, but publishes no remote-shell listener.");
            return HOST_NO_WAY;
        }
        pause("listen", start);
    }
    progress_clear();
    return status;
}

// The agent replaces its channel behind each client, which takes milliseconds: an absence lasts for several looks.
int wait_down(const host_options &options, int64_t start, int64_t deadline) {
    for (int absent = 0; absent < ABSENT_TIMES;) {
        absent = link_is_present(options, LINK_CHANNEL) ? 0 : absent + 1;
        if (now_ms() >= deadline) {
            progress_clear();
            say("The agent still publishes its command channel.");
            return HOST_NO_WAY;
        }
        pause("end", start);
    }
    progress_clear();
    return HOST_OK;
}

}  // namespace

int wait_agent(const host_options &options) {
    int64_t start = now_ms();
    int64_t deadline = start + (options.timeout_s > 0 ? options.timeout_s : INT_MAX / 1000) * INT64_C(1000);
    return options.wait_for == "down" ? wait_down(options, start, deadline) : wait_up(options, start, deadline);
}
