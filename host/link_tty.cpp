// The link to a handset over a serial line, or a USB gadget that shows itself as one: something on the handset relays
// it to the command channel. One line carries one channel. Owns no state: the turn is a lock on the device.

#include <fcntl.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "link_kind.h"
#include "message.h"

namespace {

struct speed_row {
    long rate;
    speed_t code;
};
constexpr speed_row SPEEDS[] = {{9600, B9600},       {19200, B19200},     {38400, B38400},    {57600, B57600},
                                {115200, B115200},   {230400, B230400},   {460800, B460800},  {921600, B921600},
                                {1000000, B1000000}, {1500000, B1500000}, {3000000, B3000000}};

bool find_speed(const std::string &text, speed_t *code) {
    char *end = nullptr;
    long rate = strtol(text.c_str(), &end, 10);
    for (const speed_row &row : SPEEDS) {
        if (row.rate == rate && *end == '\0') {
            *code = row.code;
            return true;
        }
    }
    return false;
}

// Raw, eight bits, no modem lines, no flow control.
bool set_line(int fd, speed_t speed) {
    struct termios attr = {};
    if (tcgetattr(fd, &attr) != 0) {
        return false;
    }
    cfmakeraw(&attr);
    attr.c_cflag |= CLOCAL | CREAD;
    attr.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS | CSTOPB);
    cfsetspeed(&attr, speed);
    return tcsetattr(fd, TCSANOW, &attr) == 0 && tcflush(fd, TCIFLUSH) == 0;
}

link_attempt take(const host_options &options, const std::string &path, link_turn *turn) {
    link_attempt attempt;
    if (path.empty()) {
        attempt.reason =
            "A serial line carries the command channel alone, no remote shell: use --adb, or run sa-host on "
            "the handset.";
        return attempt;
    }
    speed_t speed = B115200;
    link_tty_speed(options.tty, &speed);
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        attempt.error = errno;
        attempt.state = errno == ENOENT || errno == EIO || errno == ENXIO ? LINK_ABSENT : LINK_REFUSED;
        if (errno == EACCES) {
            attempt.reason = text_of("No permission to open %s: become a member of its group (ls -l %s).", path.c_str(),
                                     path.c_str());
        }
        return attempt;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        attempt.state = LINK_BUSY;
    } else if (set_line(fd, speed)) {
        attempt.state = LINK_TAKEN;
        turn->fd = fd;
        return attempt;
    }
    attempt.error = errno;
    close(fd);
    return attempt;
}

std::string explain_absence(const host_options &, const std::string &path, const char *) {
    return text_of("There is no serial line %s: the cable is out, or the handset has not started its end.",
                   path.c_str());
}

std::string no_identity(const host_options &, const std::string &) {
    return "";
}

std::string loss(const host_options &) {
    return "The serial line has ended: the cable was pulled, or the handset's end was closed.";
}

bool open_no_terminal(const host_options &, const link_turn &, const std::string &, link_terminal *) {
    return false;
}

void set_no_size(const host_options &, const link_terminal &, const struct winsize &) {}

bool get_no_attributes(const host_options &, const link_terminal &, struct termios *) {
    return false;
}

bool set_no_passing(const host_options &, const link_terminal &, bool) {
    return false;
}

bool reopen_no_terminal(const host_options &, link_terminal *) {
    return false;
}

}  // namespace

std::string link_tty_device(const std::string &line) {
    return line.substr(0, line.rfind(','));
}

bool link_tty_speed(const std::string &line, speed_t *code) {
    size_t comma = line.rfind(',');
    return comma == std::string::npos || find_speed(line.substr(comma + 1), code);
}

const link_kind m_link_tty = {
    take,           explain_absence,   no_identity, loss, open_no_terminal, set_no_size, get_no_attributes,
    set_no_passing, reopen_no_terminal};
