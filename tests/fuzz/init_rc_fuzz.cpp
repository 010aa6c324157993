// Files of services and actions, as the handset's init reads them.
#include <stdlib.h>
#include <sys/stat.h>

#include "handset/init/init.h"

static constexpr char kDirectory[] = "/data/rc";

// ---- what init does with what it has read: a service has a name and a program, a command has a verb

static void check_words(const std::vector<std::string> &words, size_t least) {
    if (words.size() < least) {
        abort();
    }
    for (const std::string &word : words) {
        if (word.find_first_of("\n\"") != std::string::npos) {
            abort();
        }
    }
}

void service_add(const service &added) {
    check_words({added.name, added.user}, 2);
    check_words(added.argv, 1);
    check_words(added.classes, 0);
    check_words(added.environment, 0);
    for (const std::string &group : added.groups) {
        account_id(group, 0);
    }
    account_id(added.user, 0);
}

void action_add(const std::string &, const std::vector<command_line> &commands) {
    for (const command_line &words : commands) {
        check_words(words, 1);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    mkdir(kDirectory, 0700);
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (!text_write_file(std::string(kDirectory) + "/one.rc", text, 0600)) {
        abort();
    }
    rc_read_directory(kDirectory);
    return 0;
}
