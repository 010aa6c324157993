// Answers on the command channel. Command reader thread.
#ifndef SA_SA_HANDLE_COMMAND_RESPONSE_H
#define SA_SA_HANDLE_COMMAND_RESPONSE_H

#include <stdint.h>

#include "sa/sa-handle/command/state.h"

/**
 * Sends a response with one write.
 *
 * @return 0, also when the write failed or fell short: that is logged, and the request counts as handled; -101 for a
 *         descriptor below 1, a null record or an empty one.
 */
long send_rsp(int32_t fd, struct sa_msg_st *rsp_ptr);

/** Sends OK. Returns the result of send_rsp, or -101 for a descriptor below 1 or a null record. */
long send_rsp_ok(int32_t fd, struct sa_msg_st *rsp_ptr);

/** Sends ERROR with a code; returns as send_rsp_ok does. */
long send_rsp_err(int32_t fd, struct sa_msg_st *rsp_ptr, int32_t code);

/** Sends a result line, "NAME: value", followed by OK. Returns the result of send_rsp. */
long send_rsp_value(int32_t fd, struct sa_msg_st *rsp_ptr, const char *name, int32_t value);

/** Sends OK for 0 and ERROR -1 for anything else. */
long send_rsp_outcome(int32_t fd, struct sa_msg_st *rsp_ptr, long outcome);

#endif
