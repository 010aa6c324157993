// The auto-start list and its command.
//
// State: the ten slots and the list's path, written by the start-up read on the main thread, afterwards by the command
// on the command reader thread. The file is the slots' raw image, 400 bytes, always rewritten whole.
#include "sa/sa-handle/command/auto_start.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sa/main/base/codes.h"
#include "sa/main/base/log.h"
#include "sa/main/base/text.h"
#include "sa/sa-handle/command/arguments.h"
#include "sa/sa-handle/command/handlers.h"
#include "sa/sa-handle/command/response.h"
#include "sa/sa-handle/command/shell.h"

enum { SLOTS = 10, SLOT_SIZE = 40, COMMAND_SIZE = 99 };
enum action { DISABLE, ENABLE, QUERY };

static const char kDirectory[] = "/data/zr-qel-sa";
static const char kFileName[] = "/auto-start.lst";

// A slot is free when its first byte is 0. A name of 40 characters has no terminating NUL; only a file can contain one.
static char m_auto_start_service_list[SLOTS][SLOT_SIZE];
static char m_auto_start_list_path_a[256];

// Opens the list without waiting, so that a pipe in its place cannot block the agent. Logs a failure under the caller's name.
static int open_list(const char *log_name, int flags) {
    const int fd = open(m_auto_start_list_path_a, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666);
    if (fd < 0) {
        sa_log_error_as(log_name, SA_ERR_SYSTEM);
        sa_log_platform("open file \"%s\" fail: %d - %s", m_auto_start_list_path_a, errno, pub_util_error_text(errno));
    }
    return fd;
}

static void warn_of_items(int items) {
    if (items < SLOTS) {
        sa_log_platform("WARNING !");
        sa_log_platform("write not completed: to write(%d) != written(%d)", SLOTS, items);
    }
}

// ---- start-up ----

void auto_start_service_list_read(void) {
    sa_log_entry();
    memset(m_auto_start_service_list, 0, sizeof(m_auto_start_service_list));
    memset(m_auto_start_list_path_a, 0, sizeof(m_auto_start_list_path_a));
    memcpy(m_auto_start_list_path_a, kDirectory, sizeof(kDirectory));
    mkdir(kDirectory, 0770);
    if (access(kDirectory, F_OK) != 0) {
        return;  // the path stays the directory's own: a later update fails, or makes a plain file of that name
    }
    memcpy(m_auto_start_list_path_a + sizeof(kDirectory) - 1, kFileName, sizeof(kFileName));
    const int fd = open_list(__func__, O_RDONLY);
    if (fd < 0) {
        return;
    }
    const ssize_t size = read(fd, m_auto_start_service_list, sizeof(m_auto_start_service_list));
    const int items = size > 0 ? static_cast<int>(size) / SLOT_SIZE : 0;
    close(fd);
    warn_of_items(items);  // the message for a short write, used for a short read on purpose
    // The last slot of a truncated list is incomplete: drop it.
    memset(m_auto_start_service_list + items, 0, static_cast<size_t>(SLOTS - items) * SLOT_SIZE);
}

// Starts one listed service. Here the log agents are numbered 0 to 4, while +START_SERVICE starts 1 to 5: intended.
static int start_listed(const char *name, char *command_ptr) {
    if (strcmp(name, "zr-qel-mla") != 0) {
        return sa_start_init_service(name, command_ptr, COMMAND_SIZE);
    }
    int status = 0;
    for (int agent = 0; agent <= 4; agent++) {
        char agent_a[SLOT_SIZE];
        sa_format(agent_a, sizeof(agent_a), "zr-qel-mla%d", agent);
        status = sa_start_init_service(agent_a, command_ptr, COMMAND_SIZE);
    }
    return status;  // only the last status counts
}

void auto_start_service_list_run(void) {
    sa_log_entry();
    for (const char *slot_ptr : m_auto_start_service_list) {
        if (slot_ptr[0] == '\0') {
            continue;
        }
        char name_a[SLOT_SIZE + 1] = "";
        char command_a[COMMAND_SIZE];
        memcpy(name_a, slot_ptr, SLOT_SIZE);
        sa_log_platform("Try to start service: %s", name_a);
        if (start_listed(name_a, command_a) != 0) {
            sa_log_error(SA_ERR_SYSTEM);
            sa_log_platform("error to exec: %s", command_a);
        }
    }
}

// ---- the command ----

static char *find_slot(const char *name) {
    for (char *slot_ptr : m_auto_start_service_list) {
        if (strncmp(slot_ptr, name, SLOT_SIZE) == 0) {
            return slot_ptr;
        }
    }
    return nullptr;
}

// Changes the list in memory and then the file. When the file cannot be opened, the change in memory stays on purpose.
static long auto_start_service_list_update(const char *name, enum action action) {
    sa_log_entry();
    const char *verb = action == ENABLE ? "Enable" : "Disable";
    char *slot_ptr = find_slot(action == ENABLE ? "" : name);
    int fd = -1;
    if (slot_ptr == nullptr) {
        sa_log_error(SA_ERR_NO_SPACE);
        sa_log_platform("no free space for \"%s\"", name);
    } else {
        memset(slot_ptr, 0, SLOT_SIZE);
        if (action == ENABLE) {
            memcpy(slot_ptr, name, strnlen(name, SLOT_SIZE));
        }
        fd = open_list(__func__, O_WRONLY | O_CREAT | O_TRUNC);
    }
    if (fd < 0) {
        sa_log_platform("%s service \"%s\" auto start %s", verb, name, "fail");
        return SA_ERR_FAIL;
    }
    const ssize_t size = write(fd, m_auto_start_service_list, sizeof(m_auto_start_service_list));
    warn_of_items(size > 0 ? static_cast<int>(size) / SLOT_SIZE : 0);
    close(fd);
    sa_log_platform("%s service \"%s\" auto start %s", verb, name, "OK");
    return 0;
}

// "name",action: a name that does not fit in a slot is refused, not cut.
static bool scan_argument(const char *arg, char *name_ptr, int32_t *action_ptr) {
    const char *rest = sa_take_quoted(arg, name_ptr, SLOT_SIZE);
    if (rest == nullptr || rest[0] != '"' || rest[1] != ',') {
        return false;
    }
    return sa_take_number(rest + 2, action_ptr) && *action_ptr >= DISABLE && *action_ptr <= QUERY;
}

long handle_sa_auto_start_service_set(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr,
                                      const char *arg) {
    sa_log_entry();
    if (sa_is_bad_call(fd, req_ptr, rsp_ptr, arg)) {
        return SA_ERR_PARAM;
    }
    char name_a[SLOT_SIZE];
    int32_t action = 0;
    if (!scan_argument(arg, name_a, &action)) {
        send_rsp_err(fd, rsp_ptr, SA_ERR_FAIL);
        return 0;
    }
    const int32_t is_listed = find_slot(name_a) != nullptr ? 1 : 0;
    if (action == QUERY) {
        send_rsp_value(fd, rsp_ptr, "AUTO_START_SERVICE", is_listed);
    } else if (is_listed == action) {
        send_rsp_ok(fd, rsp_ptr);
    } else {
        send_rsp_outcome(fd, rsp_ptr, auto_start_service_list_update(name_a, static_cast<enum action>(action)));
    }
    return 0;
}
