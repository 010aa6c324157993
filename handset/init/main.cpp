// The handset's first process. Makes the root file system, says so to the program that boots the handset, waits for its
// word, then brings up properties, rc files and services and serves until the line to that program ends. State: what that
// program wants of the end.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "init.h"

static bool m_keep_data = false;

static void say(const std::string &text) {
    send(options().line_fd, text.data(), text.size(), MSG_NOSIGNAL);
}

static void first_properties() {
    property_store("ro.build.version.release", "11");
    property_store("ro.build.type", "userdebug");
    property_store("ro.build.fingerprint", "desk/handset/handset:11/DESK/1:userdebug/test-keys");
    property_store("ro.debuggable", "1");
    property_store("ro.hardware", "desk");
    property_store("ro.property_service.version", std::to_string(options().protocol));
}

static void bring_up() {
    properties_load_saved();
    for (const auto &preset : options().properties) {
        property_request(preset.first, preset.second, 0);
    }
    rc_read_directory("/system/etc/init");
    for (const char *event : {"early-init", "init", "late-init", "boot"}) {
        actions_run_event(event);
    }
    actions_enable_properties();
    journal({"boot", "completed"});
    property_store("sys.boot_completed", "1");
    say("up");
}

// "go" brings the handset up; the end of the line ends it, "keep" before that lets the next boot find /data.
static void line_ready(uint32_t) {
    char word[16];
    ssize_t got = recv(options().line_fd, word, sizeof(word), MSG_DONTWAIT);
    if (got <= 0) {
        loop_end();
    } else if (got == 2 && memcmp(word, "go", 2) == 0) {
        bring_up();
    } else if (got == 4 && memcmp(word, "keep", 4) == 0) {
        m_keep_data = true;
    }
}

static std::string open_rooms() {
    if (!loop_open() || !journal_open() || !children_open()) {
        return "loop";
    }
    if (!properties_open() || !property_socket_open()) {
        return "properties";
    }
    if (!kmsg_open()) {
        return "kernel messages";
    }
    if (!control_open() || !loop_watch(options().line_fd, EPOLLIN, line_ready)) {
        return "control";
    }
    return "";
}

// Nothing of the booting program's streams is kept but its standard error, for what goes wrong here.
static void own_streams() {
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, 0);
        dup2(null, 1);
        close(null);
    }
}

int main(int argc, char **argv) {
    if (!options_parse(argc, argv) || (getpid() != 1 && !place_used())) {
        fprintf(stderr, "init: not started by the desk\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    fcntl(options().line_fd, F_SETFD, FD_CLOEXEC);
    fcntl(options().kmsg_fd, F_SETFD, FD_CLOEXEC);
    fcntl(options().register_fd, F_SETFD, FD_CLOEXEC);
    umask(022);
    std::string reason = stage_run();
    own_streams();
    if (reason.empty() && !place_used()) {
        reason = links_up(options().link);
    }
    if (reason.empty()) {
        reason = open_rooms();
    }
    if (!reason.empty()) {
        say(place_used() ? reason : "failed " + reason);
        place_leave(options().keep_data);
        return 1;
    }
    first_properties();
    say("staged");
    loop_run();
    children_end_all();
    place_leave(m_keep_data);
    return 0;
}
