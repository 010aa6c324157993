// The output file and its rotation. State: in the log_output of the caller.
#include "handset/logcat/output.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

static bool open_file(log_output *output) {
    output->fd = open(output->file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    return output->fd != -1;
}

bool output_open(log_output *output) {
    struct stat st;
    if (!open_file(output) || fstat(output->fd, &st) != 0) {
        return false;
    }
    output->bytes = static_cast<uint64_t>(st.st_size);
    return true;
}

bool output_write(log_output *output, const std::string &text) {
    const char *at = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t written = write(output->fd, at, left);
        if (written == -1 && errno == EINTR) {
            continue;
        }
        if (written == -1) {
            return false;
        }
        at += written;
        left -= static_cast<size_t>(written);
    }
    return true;
}

// The name of an older file, 0 being the current one.
static std::string name_of(const log_output &output, uint64_t number) {
    if (number == 0) {
        return output.file;
    }
    const auto width = static_cast<int>(std::to_string(output.older_files).size());
    char digits[32];
    snprintf(digits, sizeof(digits), ".%0*llu", width, static_cast<unsigned long long>(number));
    return output.file + digits;
}

static void shift_files(const log_output &output) {
    for (uint64_t i = output.older_files; i > 0; i--) {
        const std::string from = name_of(output, i - 1);
        if (rename(from.c_str(), name_of(output, i).c_str()) == -1 && errno != ENOENT) {
            perror("while rotating log files");
        }
    }
}

bool output_count(log_output *output, uint64_t bytes) {
    output->bytes += bytes;
    if (output->rotate_kib == 0 || output->bytes / 1024 < output->rotate_kib) {
        return true;
    }
    close(output->fd);
    shift_files(*output);
    output->bytes = 0;
    return open_file(output);
}
