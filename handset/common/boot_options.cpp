// Boot options as arguments. No state.
#include "handset/common/boot_options.h"

#include <stdlib.h>

static const struct {
    const char *key;
    bool boot_options::*flag;
} kFlags[] = {
    {"agent", &boot_options::agent},
    {"log_dir", &boot_options::log_dir},
    {"sd_card", &boot_options::sd_card},
    {"tmp", &boot_options::tmp},
    {"config", &boot_options::config},
    {"old_ctl", &boot_options::old_ctl},
    {"closed_stdin", &boot_options::closed_stdin},
};
static const struct {
    const char *key;
    int boot_options::*number;
} kNumbers[] = {
    {"restart_ms", &boot_options::restart_ms},
    {"umask", &boot_options::umask},
};

std::vector<std::string> boot_options_arguments(const boot_options &options) {
    std::vector<std::string> arguments = {"sd_card_size=" + std::to_string(options.sd_card_size),
                                          "output=" + options.output};
    for (const auto &row : kFlags) {
        arguments.push_back(std::string(row.key) + (options.*row.flag ? "=1" : "=0"));
    }
    for (const auto &row : kNumbers) {
        arguments.push_back(std::string(row.key) + "=" + std::to_string(options.*row.number));
    }
    for (const std::string &variable : options.environment) {
        arguments.push_back("env=" + variable);
    }
    for (const auto &property : options.properties) {
        arguments.push_back("prop=" + property.first + "=" + property.second);
    }
    return arguments;
}

bool boot_options_take(const std::string &key, const std::string &value, boot_options *options) {
    for (const auto &row : kFlags) {
        if (key == row.key) {
            options->*row.flag = value == "1";
            return true;
        }
    }
    for (const auto &row : kNumbers) {
        if (key == row.key) {
            options->*row.number = atoi(value.c_str());
            return true;
        }
    }
    if (key == "sd_card_size") {
        options->sd_card_size = strtoull(value.c_str(), nullptr, 10);
    } else if (key == "output") {
        options->output = value;
    } else if (key == "env") {
        options->environment.push_back(value);
    } else if (key == "prop") {
        const size_t mark = value.find('=');
        options->properties.emplace_back(value.substr(0, mark),
                                         mark == std::string::npos ? "" : value.substr(mark + 1));
    } else {
        return false;
    }
    return true;
}
