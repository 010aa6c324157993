// Reading the handset's logs from inside it. State: the number of the last mark set in the log.
#include "tests/unit/log_lines.h"

#include <android/log.h>
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

static const char kJournal[] = "/dev/.desk/log.journal";
static const char kSaLog[] = "/data/local/log/sa.log";

static int m_mark = 0;

std::string read_file(const std::string &path) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char bytes[65536];
    ssize_t count;
    while (fd >= 0 && (count = read(fd, bytes, sizeof(bytes))) > 0) {
        text.append(bytes, static_cast<size_t>(count));
    }
    if (fd >= 0) {
        close(fd);
    }
    return text;
}

void write_file(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
}

std::string owner_of(const std::string &path) {
    struct stat st;
    char text[64];
    if (stat(path.c_str(), &st) != 0) {
        return "";
    }
    snprintf(text, sizeof(text), "%04o %u:%u", static_cast<unsigned>(st.st_mode & 07777), st.st_uid, st.st_gid);
    return text;
}

std::vector<int> open_descriptors() {
    std::vector<int> found;
    DIR *directory = opendir("/proc/self/fd");
    while (const struct dirent *entry = readdir(directory)) {
        const int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(directory)) {
            found.push_back(fd);
        }
    }
    closedir(directory);
    std::sort(found.begin(), found.end());
    return found;
}

bool wait_until(const std::function<bool()> &condition, int limit_ms) {
    using clock = std::chrono::steady_clock;
    const clock::duration most = std::chrono::milliseconds(250);  // a machine that stands still uses up no more
    clock::duration left = std::chrono::milliseconds(limit_ms);
    for (clock::time_point last = clock::now(); left > clock::duration::zero();) {
        if (condition()) {
            return true;
        }
        usleep(1000);
        const clock::time_point now = clock::now();
        left -= std::min(now - last, most);
        last = now;
    }
    return condition();
}

static std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (size_t end; (end = text.find(separator, begin)) != std::string::npos; begin = end + 1) {
        parts.push_back(text.substr(begin, end - begin));
    }
    if (begin < text.size()) {
        parts.push_back(text.substr(begin));
    }
    return parts;
}

// Sets a mark and returns the journal once it is there: whatever was logged before stands in it, too.
static std::string settled_journal() {
    const std::string mark = std::to_string(getpid()) + "." + std::to_string(++m_mark);
    const std::string line = "\tsettle\t" + mark + "\n";
    std::string text;
    __android_log_print(ANDROID_LOG_DEBUG, "settle", "%s", mark.c_str());
    EXPECT_TRUE(wait_until(
        [&] {
            text = read_file(kJournal);
            return text.find(line) != std::string::npos;
        },
        20000))
        << "the log daemon does not answer";
    return text;
}

// Undoes \n, \t, \r, \\ and \xNN.
static std::string unescape(const std::string &text) {
    std::string plain;
    for (size_t at = 0; at < text.size(); at++) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            plain += text[at];
            continue;
        }
        const char kind = text[++at];
        if (kind == 'x') {
            plain += static_cast<char>(strtol(text.substr(at + 1, 2).c_str(), nullptr, 16));
            at += 2;
        } else {
            plain += kind == 'n' ? '\n' : kind == 't' ? '\t' : kind == 'r' ? '\r' : kind;
        }
    }
    return plain;
}

// "FILE-pub/cfg/cfg, LINE-17, FUNC-..." with its line left open.
static std::string without_source_line(const std::string &text) {
    const size_t begin = text.find(", LINE-");
    const size_t end = text.find(", FUNC-");
    if (text.compare(0, 5, "FILE-") != 0 || begin == std::string::npos || end == std::string::npos || end < begin) {
        return text;
    }
    return text.substr(0, begin) + ", LINE-*" + text.substr(end);
}

void LogLinesTest::SetUp() {
    forget();
}

void LogLinesTest::forget() {
    journal_start = settled_journal().size();
    unlink(kSaLog);
}

std::vector<std::string> LogLinesTest::platform(pid_t pid) {
    const std::string wanted = std::to_string(pid != 0 ? pid : getpid());
    std::vector<std::string> texts;
    for (const std::string &line : split(settled_journal().substr(journal_start), '\n')) {
        const std::vector<std::string> fields = split(line, '\t');
        if (fields.size() < 8 || fields[3] != wanted || (fields[7] != "zr-qel-sa" && fields[7] != "zr-qel-pub")) {
            continue;
        }
        texts.push_back(fields.size() > 8 ? without_source_line(unescape(fields[8])) : "");
    }
    return texts;
}

std::vector<std::string> LogLinesTest::file() {
    const size_t width = sizeof("[MM-DD hh:mm:ss.mmm]") - 1;
    std::vector<std::string> lines = split(read_file(kSaLog), '\n');
    for (std::string &line : lines) {
        if (line.size() >= width && line[0] == '[' && line[width - 1] == ']') {
            line.erase(0, width);
        }
    }
    return lines;
}
