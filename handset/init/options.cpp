// Init's argument vector: one "key=value" an argument. State: the options, written once at start.
#include <stdlib.h>

#include "handset/init/init.h"

static init_options m_options;

const init_options &options() {
    return m_options;
}

bool is_in_place() {
    return m_options.register_fd >= 0;
}

static bool take(const std::string &key, const std::string &value) {
    if (key == "booter") {
        m_options.booter_fd = atoi(value.c_str());
    } else if (key == "kmsg") {
        m_options.kmsg_fd = atoi(value.c_str());
    } else if (key == "register") {
        m_options.register_fd = atoi(value.c_str());
    } else if (key == "keep_data") {
        m_options.keep_data = value == "1";
    } else if (key == "image") {
        m_options.image = value;
    } else {
        return boot_options_take(key, value, &m_options);
    }
    return true;
}

bool options_parse(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        const std::string argument = argv[i];
        const size_t mark = argument.find('=');
        if (mark == std::string::npos || !take(argument.substr(0, mark), argument.substr(mark + 1))) {
            return false;
        }
    }
    return true;
}
