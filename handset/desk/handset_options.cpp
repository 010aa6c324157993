// The command line of `handset`. No state.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "handset/desk/handset.h"

static const char kHelp[] =
    "usage: handset run [OPTION]... -- PROGRAM [ARGUMENT]...\n"
    "       handset boot [OPTION]...\n"
    "       handset shell [OPTION]... [-- PROGRAM [ARGUMENT]...]\n"
    "       handset enter PID [-- PROGRAM [ARGUMENT]...]\n"
    "\n"
    "Boots a private desk handset. It ends with this program, which removes everything of it.\n"
    "  run     run PROGRAM in it (no agent unless --agent) and end with its status\n"
    "  boot    keep it running until end of input, SIGINT, SIGTERM or SIGHUP\n"
    "          (--detach: come back when it is up; signals alone end it)\n"
    "  shell   root shell on this terminal\n"
    "  enter   the same in a running handset; PID is what `handset boot` prints. When input or output is no terminal,\n"
    "          the program gets this program's own streams\n"
    "\n"
    "  --adb PORT             an adb daemon on this TCP port of the machine (127.0.0.1)\n"
    "  --pid-file FILE        boot: keep the PID in FILE while the handset is up\n"
    "  --agent, --no-agent    start zr-qel-sa at boot (boot and shell do, run does not)\n"
    "  --state DIR            copy /data from DIR at boot, and back at the end\n"
    "  --bring FILE:DEST      copy a file of this machine into the handset\n"
    "  --write DEST:TEXT      create a file with this text\n"
    "  --remove PATH          remove a path before the services start\n"
    "  --data BYTES           size of /data (suffixes k, m, g)\n"
    "  --no-log-dir           without /data/local/log\n"
    "  --no-sd-card           without /storage/real_sd\n"
    "  --sd-card BYTES        size of the SD card\n"
    "  --no-tmp               without /tmp\n"
    "  --prop NAME=VALUE      property set before anything starts\n"
    "  --env NAME=VALUE       environment of everything started inside\n"
    "  --timezone TZ          time zone of everything started inside\n"
    "  --output FILE          services append stdout and stderr to FILE\n"
    "  --kmsg machine         copy this machine's kernel log to /proc/kmsg\n"
    "  --user UID[:GID]       run: identity of PROGRAM\n"
    "  --help                 this text\n";

static const struct {
    const char *name;
    bool boot_options::*flag;
    bool value;
} kFlags[] = {
    {"--agent", &boot_options::agent, true},         {"--no-agent", &boot_options::agent, false},
    {"--no-log-dir", &boot_options::log_dir, false}, {"--no-sd-card", &boot_options::sd_card, false},
    {"--no-tmp", &boot_options::tmp, false},
};

static bool take_flag(const std::string &name, desk_options *o) {
    for (const auto &row : kFlags) {
        if (name == row.name) {
            o->*row.flag = row.value;
            return true;
        }
    }
    return false;
}

static uint64_t bytes_of(const std::string &text) {
    char *end = nullptr;
    uint64_t value = strtoull(text.c_str(), &end, 10);
    switch (*end) {
        case 'g': return value << 30;
        case 'm': return value << 20;
        case 'k': return value << 10;
        default: return value;
    }
}

static bool take_simple(const std::string &name, const std::string &value, desk_options *o) {
    if (name == "--data") {
        o->data_size = bytes_of(value);
    } else if (name == "--sd-card") {
        o->sd_card_size = bytes_of(value);
    } else if (name == "--output") {
        o->output = value;
    } else {
        return false;
    }
    return true;
}

// Options that may be given more than once.
static bool take_list(const std::string &name, const std::string &value, desk_options *o) {
    size_t mark = value.find(name == "--prop" ? '=' : ':');
    std::string first = value.substr(0, mark);
    std::string second = mark == std::string::npos ? "" : value.substr(mark + 1);
    if (name == "--prop") {
        o->properties.emplace_back(first, second);
    } else if (name == "--env") {
        o->environment.push_back(value);
    } else if (name == "--remove") {
        o->absent.push_back(value);
    } else if (name == "--bring" || name == "--write") {
        desk_file file;
        file.path = name == "--bring" ? second : first;
        file.text = name == "--bring" ? "" : second;
        file.host_source = name == "--bring" ? first : "";
        o->files.push_back(file);
    } else {
        return false;
    }
    return true;
}

static bool take_user(const std::string &value, handset_call *call) {
    call->uid = atoi(value.c_str());
    size_t mark = value.find(':');
    call->gid = mark == std::string::npos ? call->uid : atoi(value.c_str() + mark + 1);
    return true;
}

static bool take_value(const std::string &name, const std::string &value, handset_call *call) {
    if (name == "--state") {
        call->state = value;
        return true;
    }
    if (name == "--adb") {
        call->adb_port = atoi(value.c_str());
        return call->adb_port > 0 && call->adb_port < 65536;
    }
    if (name == "--pid-file") {
        call->pid_file = value;
        return true;
    }
    if (name == "--timezone") {
        call->options.timezone = value;
        return true;
    }
    if (name == "--user") {
        return take_user(value, call);
    }
    if (name == "--kmsg") {
        call->options.kmsg_machine = value == "machine";
        return call->options.kmsg_machine;
    }
    return take_simple(name, value, &call->options) || take_list(name, value, &call->options);
}

static int usage_error(const std::string &what) {
    fprintf(stderr, "handset: %s\nTry 'handset --help'.\n", what.c_str());
    return 2;
}

static int check(const handset_call &call) {
    if (call.verb != "run" && call.verb != "boot" && call.verb != "shell" && call.verb != "enter") {
        return usage_error("unknown command " + call.verb);
    }
    if (call.verb == "enter" && call.entered <= 0) {
        return usage_error("enter needs the pid of a handset");
    }
    if (call.verb == "run" && call.program.empty()) {
        return usage_error("run needs a program");
    }
    if (call.options.data_size == 0 || call.options.data_size % 4096 != 0) {
        return usage_error("the size of /data must be a multiple of 4096");
    }
    return -1;
}

int handset_parse(int argc, char **argv, handset_call *call) {
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        fputs(kHelp, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    call->verb = argv[1];
    call->options.agent = call->verb != "run";
    int first = 2;
    if (call->verb == "enter" && argc > 2) {
        call->entered = atoi(argv[first++]);
    }
    for (int i = first; i < argc; i++) {
        std::string name = argv[i];
        if (name == "--") {
            call->program.assign(argv + i + 1, argv + argc);
            break;
        }
        if (name == "--help") {
            fputs(kHelp, stdout);
            return 0;
        }
        if (name == "--detach" && call->verb == "boot") {
            call->detach = true;
            continue;
        }
        if (take_flag(name, &call->options)) {
            continue;
        }
        if (i + 1 == argc || !take_value(name, argv[i + 1], call)) {
            return usage_error("bad option " + name);
        }
        i++;
    }
    return check(*call);
}
