// Functions for text and whole files. No state.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "handset/init/init.h"

std::string text_format(const char *format, ...) {
    char buf[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof(buf), format, args);
    va_end(args);
    return buf;
}

bool text_read_file(const std::string &path, std::string *text) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    text->clear();
    char buf[4096];
    ssize_t got;
    while ((got = read(fd, buf, sizeof(buf))) > 0) {
        text->append(buf, static_cast<size_t>(got));
    }
    close(fd);
    return got == 0;
}

bool text_write_file(const std::string &path, const std::string &text, mode_t mode) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        return false;
    }
    ssize_t put = write(fd, text.data(), text.size());
    bool written = put == static_cast<ssize_t>(text.size());
    int error = errno;
    close(fd);
    errno = error;
    return written;
}

std::vector<std::string> text_names(const std::string &directory) {
    std::vector<std::string> names;
    DIR *dir = opendir(directory.c_str());
    if (dir == nullptr) {
        return names;
    }
    for (struct dirent *entry; (entry = readdir(dir)) != nullptr;) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

bool text_starts(const std::string &text, const std::string &start) {
    return text.compare(0, start.size(), start) == 0;
}
