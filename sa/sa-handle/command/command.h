// The command table and the dispatcher in front of it.
#ifndef SA_SA_HANDLE_COMMAND_COMMAND_H
#define SA_SA_HANDLE_COMMAND_COMMAND_H

#include <stdint.h>

#include "sa/sa-handle/command/handlers.h"

/** One command. A null handler makes its form an unknown command. */
struct sa_cmd_row {
    const char *name;             // as written behind "SA", the plus sign included; null in the end row
    uint32_t name_len;            // characters compared
    sa_cmd_handler set_handler;   // NAME=… and the bare NAME
    sa_cmd_handler read_handler;  // NAME?
    sa_cmd_handler test_handler;  // NAME=?
};

/** All commands; the first row that matches wins. Ended by a row without a name. */
extern const struct sa_cmd_row m_sa_cmd_table[];

/**
 * Serves one request: finds its command and runs the handler, or answers by itself (OK to plain attention, ERROR -1 to
 * what it does not know). Command reader thread.
 *
 * @param fd       the channel's master.
 * @param req_ptr  the request; not cut or changed.
 * @param rsp_ptr  receives the response.
 * @return the handler's result or that of the answer; -101, unanswered, for unusable arguments.
 */
long handle_sa_cmd_req(int32_t fd, struct sa_msg_st *req_ptr, struct sa_msg_st *rsp_ptr);

#endif
