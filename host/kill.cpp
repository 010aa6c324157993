// Ending the agent. Owns its turn on the listener.

#include "kill.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "link.h"
#include "message.h"
#include "remote.h"
#include "stream.h"

int kill_agent(const host_options &options) {
    static const char request[] = "host:kill";  // compared as a whole: nothing may follow
    int seconds = options.timeout_s > 0 ? options.timeout_s : REMOTE_TIMEOUT_S;
    int64_t deadline = now_ms() + seconds * INT64_C(1000);
    link_turn turn;
    if (!link_begin(options, LINK_LISTENER, deadline, &turn)) {
        return HOST_NO_WAY;
    }
    // The hang-up is the only answer there is.
    char byte = 0;
    long got =
        write_all(turn.fd, request, sizeof(request) - 1, deadline) != 0 ? -1 : read_some(turn.fd, &byte, 1, deadline);
    int error = errno;
    link_end(&turn);
    std::string loss = got == 0 ? link_loss(options) : "";
    if (!loss.empty()) {
        say("%s Whether the agent has ended is unknown.", loss.c_str());
        return HOST_NO_WAY;
    }
    if (got == 0) {
        print("The agent has ended.\n");
        return HOST_OK;
    }
    if (got > 0) {
        say("The listener took the request for something else and the agent lives on. Check --listener.");
        return HOST_ERROR;
    }
    say("The agent did not end within %d s (%s). Its main thread is busy or hangs.", seconds, strerror(error));
    return HOST_NO_WAY;
}
