// Fetching a saved log set as one tar stream through the remote shell. On this side a set is dir/.SET.tar.part with
// dir/.SET.tar.sum (checksum and size of the whole stream) while it is on its way, and dir/SET once it has been checked
// and unpacked: that name appears by one rename, so it stands for a complete set. dir/SET/handset.txt, which no set on
// the card has, tells how the handset's clocks stood.

#include "fetch.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "channel.h"
#include "command_table.h"
#include "message.h"
#include "remote.h"

namespace {

const char *const CARD_ROOT = "/storage/real_sd/logs";
const char *const SET_PATTERN = "dddd_dd_dd_dd_dd_dd";  // year to second, as the agent names a set
constexpr int QUIET_S = 60;
constexpr int MEASURE_S = 1800;  // the card is read once before the first byte comes
constexpr int SHOW_STEP_MS = 200;

// Size and checksum of the set's tar stream, as `cksum` tells them on both sides.
struct stream_sum {
    unsigned long long crc = 0;
    unsigned long long size = 0;
};

// One set on its way.
struct transfer {
    std::string set;
    std::string dir;
    std::string part;  // the stream so far
    std::string info;  // its checksum and size as they were when it was begun
    int fd = -1;       // of part; holds the lock that keeps a second sa-host away
    stream_sum whole;
    unsigned long long done = 0;   // bytes in part
    unsigned long long begun = 0;  // of these, from an earlier run
    int64_t start_ms = 0;
    int64_t shown_ms = 0;
};

// ---- Names

bool is_set_name(const std::string &name) {
    size_t len = strlen(SET_PATTERN);
    if (name.size() != len) {
        return false;
    }
    for (size_t i = 0; i < len; ++i) {
        bool is_digit = name[i] >= '0' && name[i] <= '9';
        if (SET_PATTERN[i] == 'd' ? !is_digit : name[i] != SET_PATTERN[i]) {
            return false;
        }
    }
    return true;
}

// Reads the names of the sets on the card, oldest first. Result: a host_status.
int list_sets(const host_options &options, std::vector<std::string> *sets) {
    std::string out;
    int status = remote_output(options, std::string("ls -1 ") + CARD_ROOT + " 2>/dev/null", QUIET_S, nullptr, &out);
    sets->clear();
    for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1) {
        std::string name = out.substr(at, end - at);
        if (is_set_name(name)) {
            sets->push_back(name);
        }
    }
    std::sort(sets->begin(), sets->end());
    return status < 0 ? HOST_NO_WAY : HOST_OK;
}

int say_no_sets() {
    say("There is no saved log set under %s on the handset: check that the card is in, then run sa-host save-log.",
        CARD_ROOT);
    return HOST_ERROR;
}

// ---- Programs of this machine

// Runs a program with `in_fd` as its input and collects its output. Result: its exit status, or -1.
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

bool parse_sum(const std::string &text, stream_sum *sum) {
    return sscanf(text.c_str(), "%llu %llu", &sum->crc, &sum->size) == 2;
}

bool is_same(const stream_sum &a, const stream_sum &b) {
    return a.crc == b.crc && a.size == b.size;
}

// ---- The stream

std::string tar_command(const transfer &job) {
    // What tar has to say goes nowhere: the child's three streams are one, and the stream must hold the archive alone.
    return std::string("cd ") + CARD_ROOT + "&&busybox tar -c " + job.set + " 2>/dev/null";
}

int measure(const host_options &options, transfer *job) {
    std::string out;
    std::string title = "reading " + job->set + " on the handset";
    int quiet_s = options.timeout_s > 0 ? options.timeout_s : MEASURE_S;
    int status = remote_output(options,
                               std::string("[ -d ") + CARD_ROOT + "/" + job->set + " ]||exit 66;" + tar_command(*job) +
                                   "|{ cksum 2>/dev/null||busybox cksum; }",
                               quiet_s, title.c_str(), &out);
    if (status < 0) {
        return HOST_NO_WAY;
    }
    if (status == 66) {
        say("There is no log set %s under %s on the handset. Leave the name out to fetch the newest.", job->set.c_str(),
            CARD_ROOT);
        return HOST_ERROR;
    }
    if (status != 0 || !parse_sum(out, &job->whole) || job->whole.size == 0) {
        say("The log set %s cannot be read on the handset (status %d, \"%s\"): busybox with tar, tail and cksum is "
            "needed "
            "there.",
            job->set.c_str(), status, out.c_str());
        return HOST_ERROR;
    }
    return HOST_OK;
}

void show_transfer(transfer *job) {
    int64_t now = now_ms();
    if (now - job->shown_ms < SHOW_STEP_MS) {
        return;
    }
    job->shown_ms = now;
    uint64_t rate = (job->done - job->begun) * 1000 / static_cast<uint64_t>(std::max<int64_t>(now - job->start_ms, 1));
    std::string left = rate > 0 ? ", " + in_time((job->whole.size - job->done) / rate) + " left" : "";
    progress_show(text_of("%s: %s of %s (%llu %%), %s/s%s", job->set.c_str(), in_bytes(job->done).c_str(),
                          in_bytes(job->whole.size).c_str(), job->done * 100 / job->whole.size, in_bytes(rate).c_str(),
                          left.c_str()));
}

bool take_stream(void *context, const char *data, size_t len) {
    transfer *job = static_cast<transfer *>(context);
    if (job->done + len > job->whole.size) {
        say("More bytes came than the set has: it is being changed on the handset. Run the same command again.");
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
    show_transfer(job);
    return true;
}

int receive(const host_options &options, transfer *job) {
    job->begun = job->done;
    job->start_ms = now_ms();
    job->shown_ms = job->start_ms;
    std::string command = tar_command(*job);
    if (job->done > 0) {
        command += text_of("|busybox tail -c +%llu", job->done + 1);
    }
    int usual_s = job->done > 0 ? MEASURE_S : QUIET_S;  // tail is silent over what is here already
    int quiet_s = options.timeout_s > 0 ? options.timeout_s : usual_s;
    int status = remote_run(options, command, quiet_s, nullptr, take_stream, job);
    progress_clear();
    if (status < 0 || job->done < job->whole.size) {
        say("%s of %s of the set are here. Run the same command again: it goes on where it stopped.",
            in_bytes(job->done).c_str(), in_bytes(job->whole.size).c_str());
        return status < 0 ? HOST_NO_WAY : HOST_ERROR;
    }
    return HOST_OK;
}

// ---- The parts on this side

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
    if (mkdir(job->dir.c_str(), 0777) != 0 && errno != EEXIST) {
        say("Cannot make the directory %s: %s.", job->dir.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    job->fd = open(job->part.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (job->fd < 0) {
        say("Cannot write %s: %s.", job->part.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    if (flock(job->fd, LOCK_EX | LOCK_NB) != 0) {
        say("%s is busy: another sa-host fetches the same set into the same directory.", job->part.c_str());
        return HOST_NO_WAY;
    }
    return HOST_OK;
}

// Keeps what an earlier run has brought if the set is still the same, else begins anew.
int settle_part(transfer *job) {
    stream_sum before;
    std::string text;
    struct stat st = {};
    bool is_ours = read_text(job->info, &text) && parse_sum(text, &before) && is_same(before, job->whole) &&
                   fstat(job->fd, &st) == 0 && static_cast<unsigned long long>(st.st_size) <= job->whole.size;
    job->done = is_ours ? static_cast<unsigned long long>(st.st_size) : 0;
    if (!is_ours && (ftruncate(job->fd, 0) != 0 ||
                     !write_text(job->info, text_of("%llu %llu\n", job->whole.crc, job->whole.size)))) {
        say("Cannot write into %s: %s.", job->dir.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    lseek(job->fd, static_cast<off_t>(job->done), SEEK_SET);
    return HOST_OK;
}

void drop_part(const transfer &job) {
    unlink(job.part.c_str());
    unlink(job.info.c_str());
}

int check_part(const transfer &job) {
    std::string out;
    stream_sum here;
    lseek(job.fd, 0, SEEK_SET);
    if (run_local({"cksum"}, job.fd, &out) != 0 || !parse_sum(out, &here)) {
        say("The checksum cannot be computed: cksum does not run on this machine.");
        return HOST_ERROR;
    }
    if (!is_same(here, job.whole)) {
        drop_part(job);
        say("The copy differs from the set on the handset (size %llu, checksum %llu; expected %llu, %llu) and has been "
            "dropped: the set was changed meanwhile. Run the same command again.",
            here.size, here.crc, job.whole.size, job.whole.crc);
        return HOST_ERROR;
    }
    return HOST_OK;
}

// Records how the handset's clocks stand, so that boot times and local times without a zone in the set can be told:
//   clock=2026-11-22T01:02:03.123Z   the time of day, in UTC
//   zone=Europe/Berlin +0100         the zone's name, if the handset has one, and its offset now
//   uptime=1234.56                   seconds since the boot
// A handset that cannot tell leaves a value empty. The set is complete without this file.
void record_clocks(const host_options &options, const std::string &path) {
    static const char command[] =
        "echo clock=$(date -u +%Y-%m-%dT%H:%M:%S.%N);read u x</proc/uptime;echo uptime=$u;"
        "echo zone=$(getprop persist.sys.timezone) $(date +%z)";
    std::string out;
    if (remote_output(options, command, QUIET_S, nullptr, &out) < 0) {
        return;
    }
    size_t nanoseconds = out.find('.') == std::string::npos ? out.size() : out.find('.') + 1;
    size_t end = out.find('\n');
    if (end != std::string::npos && end > nanoseconds + 3) {
        out.erase(nanoseconds + 3, end - nanoseconds - 3);
        out.insert(nanoseconds + 3, "Z");
    }
    if (!write_text(path, out)) {
        say("Cannot write %s: %s. The set itself is complete.", path.c_str(), strerror(errno));
    }
}

int unpack(const host_options &options, const transfer &job) {
    std::string fresh = job.dir + "/." + job.set + ".new";
    std::string out;
    lseek(job.fd, 0, SEEK_SET);
    run_local({"rm", "-rf", "--", fresh.c_str()}, job.fd, &out);
    if (mkdir(fresh.c_str(), 0777) != 0 ||
        run_local({"tar", "-x", "--no-same-owner", "--no-same-permissions", "-f", "-", "-C", fresh.c_str()}, job.fd,
                  &out) != 0) {
        say("Unpacking %s into %s failed. Make room, then run the same command again: only this step is left.",
            job.part.c_str(), fresh.c_str());
        return HOST_ERROR;
    }
    std::string from = fresh + "/" + job.set;
    std::string to = job.dir + "/" + job.set;
    std::string former = fresh + "/former";  // a copy of the name from before the set was saved anew
    record_clocks(options, from + "/handset.txt");
    rename(to.c_str(), former.c_str());
    if (rename(from.c_str(), to.c_str()) != 0) {
        say("Cannot rename %s to %s: %s.", from.c_str(), to.c_str(), strerror(errno));
        return HOST_ERROR;
    }
    run_local({"rm", "-rf", "--", fresh.c_str()}, job.fd, &out);
    return HOST_OK;
}

// From the measured set to the unpacked one.
int run_transfer(const host_options &options, transfer *job) {
    int status = settle_part(job);
    if (status == HOST_OK && job->done < job->whole.size) {
        status = receive(options, job);
    }
    if (status == HOST_OK) {
        status = check_part(*job);
    }
    if (status == HOST_OK) {
        status = unpack(options, *job);
    }
    if (status == HOST_OK) {
        drop_part(*job);
    }
    return status;
}

int run_locked(const host_options &options, transfer *job) {
    int status = open_part(job);
    if (status != HOST_OK) {
        return status;
    }
    status = measure(options, job);
    if (status == HOST_OK) {
        return run_transfer(options, job);
    }
    struct stat st = {};
    if (fstat(job->fd, &st) == 0 && st.st_size == 0) {
        drop_part(*job);  // nothing worth continuing
    }
    return status;
}

// A set named by hand may be any directory on the card, but its name goes into command lines of both sides.
bool check_set_name(const std::string &set) {
    static const char usual[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
    if (set.find_first_not_of(usual) == std::string::npos && set[0] != '-' && set[0] != '.') {
        return true;
    }
    say("\"%s\" is not the name of a log set: it looks like 2026_01_31_23_59_59.", set.c_str());
    return false;
}

// Brings one set, whatever is there under its name.
int bring(const host_options &options, const std::string &set, const std::string &dir) {
    transfer job;
    job.set = set;
    job.dir = dir;
    job.part = dir + "/." + set + ".tar.part";
    job.info = dir + "/." + set + ".tar.sum";
    int status = run_locked(options, &job);
    if (job.fd >= 0) {
        close(job.fd);
    }
    if (status == HOST_OK) {
        print("%s/%s: %s fetched, size and checksum are right.\n", dir.c_str(), set.c_str(),
              in_bytes(job.whole.size).c_str());
    }
    return status;
}

// The newest set on the card. Result: a host_status, with failures said.
int find_newest(const host_options &options, std::string *set) {
    std::vector<std::string> sets;
    int status = list_sets(options, &sets);
    if (status != HOST_OK) {
        return status;
    }
    if (sets.empty()) {
        return say_no_sets();
    }
    *set = sets.back();
    return HOST_OK;
}

}  // namespace

int fetch_set(const host_options &options, const std::string &set, const std::string &dir) {
    std::string chosen = set;
    if (set.empty()) {
        int status = find_newest(options, &chosen);
        if (status != HOST_OK) {
            return status;
        }
    } else if (!check_set_name(set)) {
        return HOST_REFUSED;
    }
    std::string complete = dir + "/" + chosen;
    if (access(complete.c_str(), F_OK) == 0) {
        print("%s is complete already.\n", complete.c_str());
        return HOST_OK;
    }
    return bring(options, chosen, dir);
}

int fetch_saved(const host_options &options, const std::string &dir) {
    std::vector<std::string> before;
    std::vector<std::string> after;
    request save;
    std::string why;
    request_build("save-log", command_find("save-log")->request, {}, &save, &why);
    int status = list_sets(options, &before);
    if (status == HOST_OK) {
        status = channel_send(options, {save});
    }
    if (status == HOST_OK) {
        status = list_sets(options, &after);
    }
    if (status != HOST_OK) {
        return status;
    }
    if (after.empty()) {
        return say_no_sets();
    }
    // The name is the handset's local time, and its clock may have been set back: the new set need not sort last. No
    // new name at all: the last one was saved again within its second, so a copy that is here already is out of date.
    std::string made = after.back();
    for (const std::string &set : after) {
        if (!std::binary_search(before.begin(), before.end(), set)) {
            made = set;
        }
    }
    return bring(options, made, dir);
}
