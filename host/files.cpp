// Files from and to the handset. Either way the copy is made under another name and renamed once it has been checked.
// Owns no state.

#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "frame.h"
#include "message.h"
#include "remote.h"
#include "stream.h"
#include "transfer.h"

namespace {

constexpr int QUIET_S = 60;
constexpr size_t PIECE_LINES = 256;  // lines of framed input that are written at once
constexpr int STATUS_DIFFERS = 67;

std::string base_name(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

bool is_directory(const std::string &path) {
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// ---- Push

struct push_job {
    link_terminal child;
    remote_mark mark;
    std::string output;
    int quiet_s = QUIET_S;
    transfer progress;
};

// Takes what the handset has said by now. Result: false when it will say nothing more.
bool read_output(push_job *job, int64_t deadline) {
    if (job->mark.is_over) {
        return false;
    }
    char buf[4096];
    long got = read_some(job->child.fd, buf, sizeof(buf), deadline);
    if (got > 0) {
        mark_feed(&job->mark, buf, static_cast<size_t>(got), &job->output);
    }
    return !job->mark.is_over && (got > 0 || (got < 0 && errno == ETIMEDOUT));
}

// Writes framed input and looks after the output meanwhile: a command that ends early reads no more.
// Result: whether all could be written.
bool write_framed(push_job *job, const std::string &text) {
    int64_t deadline = now_ms() + job->quiet_s * INT64_C(1000);
    for (size_t done = 0; done < text.size();) {
        ssize_t put = write(job->child.fd, text.data() + done, text.size() - done);
        if (put > 0) {
            done += static_cast<size_t>(put);
            deadline = now_ms() + job->quiet_s * INT64_C(1000);
            continue;
        }
        if (put < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
        if (!read_output(job, now_ms() + 20) || now_ms() >= deadline) {
            return false;
        }
    }
    return true;
}

// Sends the file as framed input. Result: whether it was sent to its end.
bool send_file(push_job *job, int fd) {
    char buf[FRAME_BYTES * PIECE_LINES];
    ssize_t got;
    while ((got = read(fd, buf, sizeof(buf))) > 0) {
        std::string bytes(buf, static_cast<size_t>(got));
        std::string lines;
        for (size_t at = 0; at < bytes.size(); at += FRAME_BYTES) {
            frame_line(bytes, at, std::min(FRAME_BYTES, bytes.size() - at), &lines);
        }
        if (!write_framed(job, lines)) {
            return false;
        }
        job->progress.done += bytes.size();
        transfer_progress(&job->progress);
    }
    return got == 0 && write_framed(job, FRAME_END);
}

std::string push_command(const std::string &local, const std::string &path, const stream_sum &sum, mode_t mode) {
    return text_of(
        "t=%s;[ -d \"$t\" ]&&t=$t/%s;[ ! -e \"$t\" ]||[ -f \"$t\" ]||{ echo $t is no file;exit 1;};p=$t.part;{ cat "
        ">\"$p\"&&chmod %o \"$p\";}||{ rm -f \"$p\";exit 1;};"
        "set -- $(cksum <\"$p\" 2>/dev/null||busybox cksum <\"$p\");"
        "[ \"$1 $2\" = \"%llu %llu\" ]||{ rm -f \"$p\";exit %d;};mv -f \"$p\" \"$t\"&&echo \"$t\"",
        shell_quoted(path).c_str(), shell_quoted(base_name(local)).c_str(), static_cast<unsigned>(mode & 0777), sum.crc,
        sum.size, STATUS_DIFFERS);
}

int say_push_end(const push_job &job, const std::string &local, bool is_sent) {
    std::string said = job.output.substr(0, job.output.find_last_not_of("\r\n") + 1);
    if (job.mark.is_over && job.mark.status == 0 && is_sent) {
        print("%s: %s pushed, size and checksum are right.\n", said.c_str(), in_bytes(job.progress.whole.size).c_str());
        return HOST_OK;
    }
    if (job.mark.is_over && job.mark.status == STATUS_DIFFERS) {
        say("The copy of %s on the handset differs and has been removed: the file was changed meanwhile. Try again.",
            local.c_str());
    } else if (job.mark.is_over) {
        say("%s could not be written on the handset: %s", local.c_str(), said.c_str());
    } else {
        say("The connection ended before %s was on the handset. Try again.", local.c_str());
        return HOST_NO_WAY;
    }
    return HOST_ERROR;
}

int push_open_file(const host_options &options, const std::string &local, const std::string &path, int fd,
                   mode_t mode) {
    push_job job;
    job.progress.title = local;
    job.quiet_s = options.timeout_s > 0 ? options.timeout_s : QUIET_S;
    if (!transfer_sum(fd, &job.progress.whole)) {
        return HOST_ERROR;
    }
    job.mark = mark_new();
    job.progress.start_ms = now_ms();
    std::string command = push_command(local, path, job.progress.whole, mode);
    if (remote_start(options, mark_wrap(job.mark, command, INPUT_FRAMED), -1, nullptr, &job.child) != 0) {
        return HOST_NO_WAY;
    }
    lseek(fd, 0, SEEK_SET);
    bool is_sent = send_file(&job, fd);
    int64_t deadline = now_ms() + job.quiet_s * INT64_C(1000);
    while (read_output(&job, deadline) && now_ms() < deadline) {
    }
    link_close_terminal(&job.child);
    progress_clear();
    return say_push_end(job, local, is_sent);
}

}  // namespace

int file_pull(const host_options &options, const std::string &path, const std::string &local) {
    std::string to = is_directory(local) ? local + "/" + base_name(path) : local;
    transfer job;
    job.title = path;
    job.check = "[ -f " + shell_quoted(path) + " ]";
    job.absent = text_of("There is no file %s on the handset. For a whole log set use fetch.", path.c_str());
    job.command = "cat " + shell_quoted(path);
    job.may_be_empty = true;
    job.part = to.substr(0, to.rfind('/') + 1) + "." + base_name(to) + ".part";
    int status = transfer_receive(options, &job);
    if (status == HOST_OK && rename(job.part.c_str(), to.c_str()) != 0) {
        say("Cannot rename %s to %s: %s.", job.part.c_str(), to.c_str(), strerror(errno));
        status = HOST_ERROR;
    }
    transfer_end(&job, status == HOST_OK);
    if (status == HOST_OK) {
        print("%s: %s pulled, size and checksum are right.\n", to.c_str(), in_bytes(job.whole.size).c_str());
    }
    return status;
}

int file_push(const host_options &options, const std::string &local, const std::string &path) {
    struct stat st = {};
    int fd = open(local.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        say("Cannot read %s: %s.", local.c_str(), fd < 0 ? strerror(errno) : "it is no file");
        if (fd >= 0) {
            close(fd);
        }
        return HOST_ERROR;
    }
    int status = push_open_file(options, local, path, fd, st.st_mode);
    close(fd);
    return status;
}
