// The handset's first process. Makes the root file system, reports "ready" to the program that boots the handset, starts
// properties, rc files and services at its "go", reports "up", and serves until the socket to that program is closed.
// State: whether /data is to be kept at the end.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "handset/init/init.h"

static bool m_keep_data = false;

static void report(const std::string &text) {
    send(options().booter_fd, text.data(), text.size(), MSG_NOSIGNAL);
}

static void first_properties() {
    property_store("ro.build.version.release", "11");
    property_store("ro.build.type", "userdebug");
    property_store("ro.build.fingerprint", "desk/handset/handset:11/DESK/1:userdebug/test-keys");
    property_store("ro.debuggable", "1");
    property_store("ro.hardware", "desk");
    property_store("ro.property_service.version", "2");
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
    report("up");
}

// "go" starts the handset, end of file ends it, "keep" before that keeps /data for the next boot.
static void booter_ready(uint32_t) {
    char word[16];
    ssize_t got = recv(options().booter_fd, word, sizeof(word), MSG_DONTWAIT);
    if (got <= 0) {
        loop_end();
    } else if (got == 2 && memcmp(word, "go", 2) == 0) {
        bring_up();
    } else if (got == 4 && memcmp(word, "keep", 4) == 0) {
        m_keep_data = true;
    }
}

static std::string open_modules() {
    if (!loop_open() || !journal_open() || !children_open()) {
        return "loop";
    }
    if (!properties_open(actions_property_changed) || !property_service_open()) {
        return "properties";
    }
    if (!kmsg_open()) {
        return "kernel messages";
    }
    if (!control_open() || !loop_watch(options().booter_fd, EPOLLIN, booter_ready)) {
        return "control";
    }
    return "";
}

// Keeps only the standard error of the booting program, for messages of init.
static void drop_streams() {
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, 0);
        dup2(null, 1);
        close(null);
    }
}

int main(int argc, char **argv) {
    if (!options_parse(argc, argv) || (getpid() != 1 && !is_in_place())) {
        fprintf(stderr, "init: not started by the desk library\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    fcntl(options().booter_fd, F_SETFD, FD_CLOEXEC);
    fcntl(options().kmsg_fd, F_SETFD, FD_CLOEXEC);
    fcntl(options().register_fd, F_SETFD, FD_CLOEXEC);
    umask(022);
    std::string reason = root_fs_make();
    drop_streams();
    if (reason.empty()) {
        reason = open_modules();
    }
    if (!reason.empty()) {
        report(is_in_place() ? reason : "failed " + reason);
        in_place_remove(options().keep_data);
        return 1;
    }
    first_properties();
    report("ready");
    loop_run();
    children_end_all();
    in_place_remove(m_keep_data);
    return 0;
}
