// Init's argument vector: one "key=value" an argument. State: the options, written once at start.
#include <stdlib.h>

#include "init.h"

static init_options m_options;

const init_options &options() {
    return m_options;
}

struct flag_row {
    const char *key;
    bool init_options::*flag;
};
struct number_row {
    const char *key;
    int init_options::*number;
};
struct text_row {
    const char *key;
    std::string init_options::*text;
};

static const flag_row m_flags[] = {
    {"agent", &init_options::agent},
    {"log_dir", &init_options::log_dir},
    {"card", &init_options::card},
    {"tmp", &init_options::tmp},
    {"config", &init_options::config},
    {"old_ctl", &init_options::old_ctl},
    {"closed_stdin", &init_options::closed_stdin},
    {"keep_data", &init_options::keep_data},
};
static const number_row m_numbers[] = {
    {"line", &init_options::line_fd},      {"register", &init_options::register_fd},  {"kmsg", &init_options::kmsg_fd},
    {"protocol", &init_options::protocol}, {"restart_ms", &init_options::restart_ms}, {"umask", &init_options::umask},
};
static const text_row m_texts[] = {
    {"image", &init_options::image},
    {"output", &init_options::output},
    {"printk", &init_options::printk},
    {"link", &init_options::link},
};

static bool take_row(const std::string &key, const std::string &value) {
    for (const flag_row &row : m_flags) {
        if (key == row.key) {
            m_options.*row.flag = value == "1";
            return true;
        }
    }
    for (const number_row &row : m_numbers) {
        if (key == row.key) {
            m_options.*row.number = static_cast<int>(strtol(value.c_str(), nullptr, 0));
            return true;
        }
    }
    for (const text_row &row : m_texts) {
        if (key == row.key) {
            m_options.*row.text = value;
            return true;
        }
    }
    return false;
}

static bool take(const std::string &key, const std::string &value) {
    if (key == "card_size") {
        m_options.card_size = strtoull(value.c_str(), nullptr, 10);
        return true;
    }
    if (key == "env") {
        m_options.environment.push_back(value);
        return true;
    }
    if (key == "prop") {
        size_t mark = value.find('=');
        m_options.properties.emplace_back(value.substr(0, mark),
                                          mark == std::string::npos ? "" : value.substr(mark + 1));
        return true;
    }
    return take_row(key, value);
}

bool options_parse(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        std::string argument = argv[i];
        size_t mark = argument.find('=');
        if (mark == std::string::npos || !take(argument.substr(0, mark), argument.substr(mark + 1))) {
            return false;
        }
    }
    return true;
}
