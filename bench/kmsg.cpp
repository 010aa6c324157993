// Copying kernel messages, written as fast as they are read, as many bytes as the file holds. Compared with `dd` with the
// same buffer and `busybox cat`, which read the same stream in a second handset without a kernel-message reader. All
// overwrite their file in place; the agent's file wraps at exactly that size. No state.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const char kStream[] = "/proc/kmsg";
static const int kPipeSize = 1 << 20;
static const size_t kPiece = 99 * 600;  // size of one write: a multiple of the reader's pieces

static void await_read(int pipe) {
    int unread = 1;
    while (ioctl(pipe, FIONREAD, &unread) == 0 && unread > 0) {
        usleep(100);
    }
}

// Writes to a reader that already waits. Returns bytes per second.
static double feed(int pipe, size_t bytes) {
    const std::string piece(kPiece, 'k');
    write_text(pipe, std::string(99, 'k'));
    await_read(pipe);
    const double start = now_seconds();
    for (size_t fed = 0; fed < bytes; fed += piece.size()) {
        write_text(pipe, piece);
    }
    await_read(pipe);
    return static_cast<double>(bytes) / (now_seconds() - start);
}

static double peer_speed(desk *h, int pipe, size_t bytes, const std::vector<std::string> &argv) {
    const int in = desk_open(h, kStream, O_RDONLY | O_CLOEXEC);
    const int out = desk_open(h, "/data/copy", O_WRONLY | O_CREAT | O_CLOEXEC);
    desk_child copier = start_program(h, argv, in, out);
    const double speed = feed(pipe, bytes);
    end_program(h, &copier);
    close(in);
    close(out);
    return speed;
}

static int open_stream(desk *h) {
    const int fd = desk_open(h, kStream, O_RDWR | O_CLOEXEC);
    if (fd < 0 || fcntl(fd, F_SETPIPE_SZ, kPipeSize) < 0) {
        give_up("kernel messages cannot be fed");
    }
    return fd;
}

static desk *boot_with(const std::string &kernel_messages) {
    desk_options options;
    options.data_size = 512u << 20;
    options.properties.push_back({"persist.sys.install.zr.log",
                                  "/data/local/log,I1,0,0,I2,0,0,I3," + kernel_messages + ",I4,0,0,I5,0,0,I6,0,0"});
    return boot_handset(options);
}

static figure line_of(const std::string &peer, const std::vector<double> &ours, const std::vector<double> &theirs) {
    figure line;
    line.what = "kernel messages copied, bytes a second";
    line.ours = text_of("%.0f MB/s", median_of(ours) / 1e6);
    line.beside = peer + text_of(" %.0f MB/s", median_of(theirs) / 1e6);
    line.value = spread_of(ratios_of(ours, theirs));
    line.unit = "×";
    return line;
}

void bench_kmsg(const effort &how, report *lines) {
    const size_t bytes = how.quick ? 20000000 : 200000000;
    desk *h = boot_with(text_of("2,%zu", bytes / 1024));
    desk *peers = boot_with("0,0");
    const int stream = open_stream(h);
    const int peer_stream = open_stream(peers);
    std::vector<double> ours;
    std::vector<double> dd;
    std::vector<double> floors;
    std::vector<double> cat;
    for (int run = -1; run < how.runs; run++) {
        const double speeds[] = {feed(stream, bytes), peer_speed(peers, peer_stream, bytes, {"/usr/bin/dd", "bs=99"}),
                                 peer_speed(peers, peer_stream, bytes, {"/desk/inside", "copy"}),
                                 peer_speed(peers, peer_stream, bytes, {"/system/xbin/busybox", "cat"})};
        if (run >= 0) {  // run -1 creates the files
            ours.push_back(speeds[0]);
            dd.push_back(speeds[1]);
            floors.push_back(speeds[2]);
            cat.push_back(speeds[3]);
        }
    }
    for (figure line : {line_of("dd bs=99", ours, dd), line_of("floor, on a thread", ours, floors)}) {
        line.kind = AT_LEAST;
        line.goal = 0.95;
        lines->push_back(line);
    }
    lines->push_back(line_of("busybox cat", ours, cat));
    close(stream);
    close(peer_stream);
    desk_end(h);
    desk_end(peers);
}
