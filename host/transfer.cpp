// Streams from the handset: measured there, received into a part, checked here. Beside the part stands what size and
// checksum the whole had when it was begun: a stream that has changed since is begun anew. Owns no state.

#include "transfer.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "message.h"
#include "remote.h"

namespace {

constexpr int QUIET_S = 60;
constexpr int MEASURE_S = 1800;  // the stream is read once on the handset before the first byte comes
constexpr int SHOW_STEP_MS = 200;
constexpr int STATUS_ABSENT = 66;

bool parse_sum(const std::string &text, stream_sum *sum) {
    return sscanf(text.c_str(), "%llu %llu", &sum->crc, &sum->size) == 2;
}

std::string sum_path(const transfer &job) {
    return job.part.substr(0, job.part.rfind('.')) + ".sum";
}

int measure(const host_options &options, transfer *job) {
    std::string out;
    std::string title = "reading " + job->title + " on the handset";
    int quiet_s = options.timeout_s > 0 ? options.timeout_s : MEASURE_S;
    int status = remote_output(options,
                               text_of("%s||exit %d;%s|{ cksum 2>/dev/null||busybox cksum; }", job->check.c_str(),
                                       STATUS_ABSENT, job->command.c_str()),
                               quiet_s, title.c_str(), &out);
    if (status < 0) {
        return HOST_NO_WAY;
    }
    if (status == STATUS_ABSENT) {
        say("%s", job->absent.c_str());
        return HOST_ERROR;
    }
    if (status != 0 || !parse_sum(out, &job->whole) || (job->whole.size == 0 && !job->may_be_empty)) {
        say("%s cannot be read on the handset (status %d, \"%s\"): busybox with tar, tail and cksum is needed there.",
            job->title.c_str(), status, out.c_str());
        return HOST_ERROR;
    }
    return HOST_OK;
}

bool take_stream(void *context, const char *data, size_t len) {
    transfer *job = static_cast<transfer *>(context);
    if (job->done + len > job->whole.size) {
        say("More bytes came than there were: %s is being changed on the handset. Run the same command again.",
            job->title.c_str());
        return false;
    }
    while (len > 0) {
        ssize_t put = write(job->fd, data, len);
        if (put < 0 && errno != EINTR) {
            say("Writing %s failed: %s. Make room, then run the same command again: it goes on where it stopped.",
                job->part.c_str(), strerror(errno));
            return false;
        }
        size_t step = static_cast<size_t>(std::max<ssize_t>(put, 0));
        data += step;
        len -= step;
        job->done += step;
    }
    transfer_progress(job);
    return true;
}

int receive(const host_options &options, transfer *job) {
    job->begun = job->done;
    job->start_ms = now_ms();
    job->shown_ms = job->start_ms - SHOW_STEP_MS;  // the first piece is shown at once
    std::string command = job->command;
    if (job->done > 0) {
        command += text_of("|busybox tail -c +%llu", job->done + 1);
    }
    int usual_s = job->done > 0 ? MEASURE_S : QUIET_S;  // tail is silent over what is here already
    int quiet_s = options.timeout_s > 0 ? options.timeout_s : usual_s;
    int status = remote_run(options, command, quiet_s, nullptr, take_stream, job);
    progress_clear();
    if (status < 0 || job->done < job->whole.size) {
        say("%s of %s are here. Run the same command again: it goes on where it stopped.", in_bytes(job->done).c_str(),
            in_bytes(job->whole.size).c_str());
        return status < 0 ? HOST_NO_WAY : HOST_ERROR;
    }
    return HOST_OK;
}

// ---- The part on this side

bool read_text(const std::string &path, std::string *text) {
    FILE *file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        return false;
    }
    char buf[128];
    size_t len = fread(buf, 1, sizeof(buf), file);
    fclose(file);
    text->assign(buf, len);
    return true;
}

bool write_text(const std::string &path, const std::string &text) {
    FILE *file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        return false;
    }
    bool is_written = fputs(text.c_str(), file) >= 0;
    return fclose(file) == 0 && is_written;
}

int open_part(transfer *job) {
    job->fd = open(job->part.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (job->fd < 0) {
        say("Cannot write %s: %s.", job->part.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    if (flock(job->fd, LOCK_EX | LOCK_NB) != 0) {
        say("%s is busy: another sa-host brings the same into the same directory.", job->part.c_str());
        close(job->fd);
        job->fd = -1;
        return HOST_NO_WAY;
    }
    return HOST_OK;
}

// Keeps what an earlier run has brought if the stream is still the same, else begins anew.
int settle_part(transfer *job) {
    stream_sum before;
    std::string text;
    struct stat st = {};
    bool is_ours = read_text(sum_path(*job), &text) && parse_sum(text, &before) &&
                   stream_sum_is_same(before, job->whole) && fstat(job->fd, &st) == 0 &&
                   static_cast<unsigned long long>(st.st_size) <= job->whole.size;
    job->done = is_ours ? static_cast<unsigned long long>(st.st_size) : 0;
    if (!is_ours && (ftruncate(job->fd, 0) != 0 ||
                     !write_text(sum_path(*job), text_of("%llu %llu\n", job->whole.crc, job->whole.size)))) {
        say("Cannot write beside %s: %s.", job->part.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    lseek(job->fd, static_cast<off_t>(job->done), SEEK_SET);
    return HOST_OK;
}

void remove_part(const transfer &job) {
    unlink(job.part.c_str());
    unlink(sum_path(job).c_str());
}

int check_part(const transfer &job) {
    stream_sum here;
    if (!transfer_sum(job.fd, &here)) {
        return HOST_ERROR;
    }
    if (!stream_sum_is_same(here, job.whole)) {
        remove_part(job);
        say("The copy differs from %s on the handset (size %llu, checksum %llu; expected %llu, %llu) and has been "
            "dropped: it was changed meanwhile. Run the same command again.",
            job.title.c_str(), here.size, here.crc, job.whole.size, job.whole.crc);
        return HOST_ERROR;
    }
    return HOST_OK;
}

}  // namespace

int run_local(const std::vector<const char *> &words, int in_fd, std::string *out) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in_fd, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (const char *word : words) {
        argv.push_back(const_cast<char *>(word));
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    char buf[512];
    ssize_t got;
    while (error == 0 && ((got = read(ends[0], buf, sizeof(buf))) > 0 || (got < 0 && errno == EINTR))) {
        out->append(buf, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
    close(ends[0]);
    int status = -1;
    while (error == 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return error == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool stream_sum_is_same(const stream_sum &a, const stream_sum &b) {
    return a.crc == b.crc && a.size == b.size;
}

bool transfer_sum(int fd, stream_sum *sum) {
    std::string out;
    lseek(fd, 0, SEEK_SET);
    if (run_local({"cksum"}, fd, &out) == 0 && parse_sum(out, sum)) {
        return true;
    }
    say("The checksum cannot be computed: cksum does not run on this machine.");
    return false;
}

void transfer_progress(transfer *job) {
    int64_t now = now_ms();
    if (now - job->shown_ms < SHOW_STEP_MS) {
        return;
    }
    job->shown_ms = now;
    uint64_t rate = (job->done - job->begun) * 1000 / static_cast<uint64_t>(std::max<int64_t>(now - job->start_ms, 1));
    std::string left = rate > 0 ? ", " + in_time((job->whole.size - job->done) / rate) + " left" : "";
    progress_show(text_of("%s: %s of %s (%llu %%), %s/s%s", job->title.c_str(), in_bytes(job->done).c_str(),
                          in_bytes(job->whole.size).c_str(), job->done * 100 / job->whole.size, in_bytes(rate).c_str(),
                          left.c_str()));
}

int transfer_receive(const host_options &options, transfer *job) {
    int status = open_part(job);
    if (status != HOST_OK) {
        return status;
    }
    status = measure(options, job);
    struct stat st = {};
    if (status != HOST_OK) {
        if (fstat(job->fd, &st) == 0 && st.st_size == 0) {
            remove_part(*job);  // nothing worth continuing
        }
        return status;
    }
    status = settle_part(job);
    if (status == HOST_OK && job->done < job->whole.size) {
        status = receive(options, job);
    }
    return status == HOST_OK ? check_part(*job) : status;
}

void transfer_end(transfer *job, bool is_taken) {
    if (is_taken) {
        remove_part(*job);
    }
    if (job->fd >= 0) {
        close(job->fd);
        job->fd = -1;
    }
}
