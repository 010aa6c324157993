// The remote shell: from the request to the first byte of `echo`, compared with dropbear with a key over loopback; and a
// large file through `cat`, compared with socat running the same cat on a pseudo-terminal. No state.
#include <fcntl.h>
#include <unistd.h>

#include "bench/benches.h"
#include "bench/handsets.h"

static const char kBulk[] = "/data/bulk";

static double first_byte(desk *h, int listener) {
    char byte;
    const double start = now_seconds();
    const int fd = open_shell(h, listener, "echo x");
    if (read(fd, &byte, 1) != 1) {
        give_up("the remote shell says nothing");
    }
    const double seconds = now_seconds() - start;
    close(fd);
    return seconds;
}

// What a program of the handset writes to a pipe of ours.
static double read_program(desk *h, const std::vector<std::string> &argv, size_t limit) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        give_up("pipe");
    }
    const double start = now_seconds();
    desk_child program = start_program(h, argv, -1, ends[1]);
    close(ends[1]);
    const size_t got = read_all(ends[0], limit);
    const double seconds = now_seconds() - start;
    close(ends[0]);
    end_program(h, &program);
    if (got < limit) {
        give_up(argv[0] + " ended early");
    }
    return seconds;
}

static double dropbear_first_byte(desk *h) {
    return read_program(
        h, {"/usr/bin/dbclient", "-y", "-y", "-i", "/data/root/key", "-p", "2222", "root@127.0.0.1", "echo x"}, 1);
}

static double bulk_seconds(desk *h, int listener, size_t size) {
    const double start = now_seconds();
    const int fd = open_shell(h, listener, std::string("cat ") + kBulk);
    const size_t got = read_all(fd, size);
    const double seconds = now_seconds() - start;
    close(fd);
    if (got != size) {
        give_up(text_of("the remote shell lost bytes: %zu of %zu", got, size));
    }
    return seconds;
}

static double socat_bulk_seconds(desk *h, size_t size) {
    return read_program(
        h, {"/usr/bin/socat", "-u", std::string("EXEC:/system/bin/cat ") + kBulk + ",pty,rawer", "STDOUT"}, size);
}

static void measure_set_up(desk *h, int listener, const effort &how, report *lines) {
    desk_child server = start_dropbear(h);
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int run = 0; run < how.runs; run++) {
        std::vector<double> shells;
        for (int i = 0; i < 5; i++) {
            shells.push_back(first_byte(h, listener));
        }
        ours.push_back(median_of(shells));
        theirs.push_back(dropbear_first_byte(h));
    }
    figure line;
    line.what = "remote shell, request to first byte: times faster";
    line.ours = seconds_text(median_of(ours));
    line.beside = "dropbear " + seconds_text(median_of(theirs));
    line.value = spread_of(ratios_of(theirs, ours));
    line.unit = "×";
    line.kind = AT_LEAST;
    line.goal = 5;
    lines->push_back(line);
    end_program(h, &server);
}

static void measure_bulk(desk *h, int listener, const effort &how, report *lines) {
    const size_t size = how.quick ? 10000000 : 100000000;
    desk_write_file(h, kBulk, std::string(size, 'b'));
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int run = 0; run < how.runs; run++) {
        ours.push_back(static_cast<double>(size) / bulk_seconds(h, listener, size));
        theirs.push_back(static_cast<double>(size) / socat_bulk_seconds(h, size));
    }
    figure line;
    line.what = "remote shell, bytes a second through cat";
    line.ours = text_of("%.0f MB/s", median_of(ours) / 1e6);
    line.beside = text_of("socat pty %.0f MB/s", median_of(theirs) / 1e6);
    line.value = spread_of(ratios_of(ours, theirs));
    line.unit = "×";
    line.kind = AT_LEAST;
    line.goal = 0.95;
    lines->push_back(line);
}

void bench_shell(const effort &how, report *lines) {
    desk_options options = without_collectors();
    options.data_size = 256u << 20;
    desk *h = boot_handset(options);
    prepare_dropbear(h);
    const int listener = open_terminal(h, "/dev/ttysa1");
    measure_set_up(h, listener, how, lines);
    measure_bulk(h, listener, how, lines);
    close(listener);
    desk_end(h);
}
