// Floor of an AT request: a bare terminal that answers OK and writes as many lines to both logs as the agent does, in the
// same order before and after the answer. No state.
#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include "bench/floors/floors.h"

static int open_terminal(const char *link) {
    const int master = open("/dev/ptmx", O_RDWR | O_CLOEXEC);
    struct termios raw;
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 || tcgetattr(master, &raw) != 0) {
        return -1;
    }
    cfmakeraw(&raw);
    tcsetattr(master, TCSANOW, &raw);
    return symlink(ptsname(master), link) == 0 ? master : -1;
}

static void answer(int master) {
    floor_line("[11-21 10:00:00.000]sa_handle_read_cmd_loop read_len[3]\n");
    floor_platform_line("receive <== AT");
    floor_platform_line("handle_sa_cmd_req()");
    floor_file_line("[11-21 10:00:00.000]handle_sa_cmd_req req[AT]\n");
    floor_platform_line("send_rsp_ok()");
    floor_platform_line("send_rsp()");
    floor_platform_line("send ==> OK");
    (void)!write(master, "\r\nOK\r\n", 6);
    floor_file_line("[11-21 10:00:00.000]handle_sa_cmd_req AT ret_val[0]\n");
    floor_platform_line("sa_handle_read_cmd_loop handle_sa_cmd_req(AT) ret_val[0]");
    floor_file_line("[11-21 10:00:00.000]sa_handle_read_cmd_loop req[AT] ret_val[0]\n");
}

int floor_echo(const char *link) {
    const int master = open_terminal(link);
    char request[200];
    while (master >= 0 && read(master, request, sizeof(request) - 1) > 0) {
        answer(master);
    }
    return 1;
}
