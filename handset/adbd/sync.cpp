// The file service: what a file is, and its content. Requests are four letters, a length and a path. Runs in a process
// of its own, one a client; no other state.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "service.h"
#include "transport.h"

static constexpr size_t PIECE_MAX = 64 * 1024;
static constexpr size_t PATH_LEN_MAX = 1024;

struct sync_word {
    char name[4];
    uint32_t value;
};

// The answer to STAT.
struct __attribute__((packed)) sync_stat_old {
    char name[4];
    uint32_t mode, size, time;
};

// The answer to STA2 and LST2.
struct __attribute__((packed)) sync_stat {
    char name[4];
    uint32_t error;
    uint64_t device, inode;
    uint32_t mode, links, uid, gid;
    uint64_t size;
    int64_t access_time, modify_time, change_time;
};
static_assert(sizeof(sync_stat) == 72, "as on the wire");

static bool send_word(int fd, const char *name, size_t value, const std::string &data = "") {
    sync_word word;
    memcpy(word.name, name, sizeof(word.name));
    word.value = static_cast<uint32_t>(value);
    return write_exactly(fd, &word, sizeof(word)) && write_exactly(fd, data.data(), data.size());
}

static bool tell_old_stat(int fd, const std::string &path) {
    struct stat st = {};
    sync_stat_old answer = {{'S', 'T', 'A', 'T'}, 0, 0, 0};
    if (lstat(path.c_str(), &st) == 0) {
        answer.mode = st.st_mode;
        answer.size = static_cast<uint32_t>(st.st_size);
        answer.time = static_cast<uint32_t>(st.st_mtime);
    }
    return write_exactly(fd, &answer, sizeof(answer));
}

static bool tell_stat(int fd, const char *name, const std::string &path) {
    struct stat st = {};
    sync_stat answer = {};
    memcpy(answer.name, name, sizeof(answer.name));
    if ((name[0] == 'L' ? lstat(path.c_str(), &st) : stat(path.c_str(), &st)) != 0) {
        answer.error = static_cast<uint32_t>(errno);
    } else {
        answer.device = st.st_dev;
        answer.inode = st.st_ino;
        answer.mode = st.st_mode;
        answer.links = static_cast<uint32_t>(st.st_nlink);
        answer.uid = st.st_uid;
        answer.gid = st.st_gid;
        answer.size = static_cast<uint64_t>(st.st_size);
        answer.access_time = st.st_atime;
        answer.modify_time = st.st_mtime;
        answer.change_time = st.st_ctime;
    }
    return write_exactly(fd, &answer, sizeof(answer));
}

static bool send_file(int fd, const std::string &path) {
    int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        const std::string reason = strerror(errno);
        return send_word(fd, "FAIL", reason.size(), reason);
    }
    std::string piece(PIECE_MAX, '\0');
    ssize_t got;
    bool is_sent = true;
    while (is_sent && (got = read(file, &piece[0], piece.size())) > 0) {
        is_sent = send_word(fd, "DATA", static_cast<size_t>(got)) &&
                  write_exactly(fd, piece.data(), static_cast<size_t>(got));
    }
    close(file);
    return is_sent && send_word(fd, "DONE", 0);
}

void sync_serve(int fd) {
    sync_word request;
    bool goes_on = true;
    while (goes_on && read_exactly(fd, &request, sizeof(request)) && request.value <= PATH_LEN_MAX) {
        const std::string name(request.name, sizeof(request.name));
        std::string path(request.value, '\0');
        if (name == "QUIT" || !read_exactly(fd, &path[0], path.size())) {
            return;
        }
        if (name == "STAT") {
            goes_on = tell_old_stat(fd, path);
        } else if (name == "STA2" || name == "LST2") {
            goes_on = tell_stat(fd, name.c_str(), path);
        } else if (name == "RECV") {
            goes_on = send_file(fd, path);
        } else {
            const std::string reason = "not served by a desk handset";
            send_word(fd, "FAIL", reason.size(), reason);
            return;
        }
    }
}
