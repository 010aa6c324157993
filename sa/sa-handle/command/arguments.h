// What handlers are given: the test of their arguments and the scanning of argument texts.
#ifndef SA_SA_HANDLE_COMMAND_ARGUMENTS_H
#define SA_SA_HANDLE_COMMAND_ARGUMENTS_H

#include <stddef.h>
#include <stdint.h>

#include "sa/sa-handle/command/state.h"

/** Whether a handler was called with unusable arguments; reported under the handler's own name. It then answers nothing. */
#define sa_is_bad_call(fd, req_ptr, rsp_ptr, arg) \
    sa_is_bad_call_of(__func__, __LINE__, (fd), (req_ptr), (rsp_ptr), (arg))
/** The function behind the macro sa_is_bad_call. */
bool sa_is_bad_call_of(const char *log_name, int line, int32_t fd, const struct sa_msg_st *req_ptr,
                       const struct sa_msg_st *rsp_ptr, const char *arg);

/**
 * Takes the text between the double quote that `arg` must begin with and the next one.
 *
 * @param arg       a handler's argument text.
 * @param text_ptr  receives it, cut at size - 1 characters; empty on failure.
 * @param size      of text_ptr.
 * @return the rest of `arg` after the text (it begins with the closing quote, unless the text was cut), or null when `arg`
 *         does not begin with a double quote or the text is empty.
 */
const char *sa_take_quoted(const char *arg, char *text_ptr, size_t size);

/**
 * Reads a decimal number: white space, a sign and digits; whatever follows is ignored. A number that does not fit in 32
 * bits is refused.
 *
 * @return whether a number was read.
 */
bool sa_take_number(const char *arg, int32_t *value_ptr);

/** Reads a switch value, 0 or 1. Returns whether it was read. */
bool sa_take_switch(const char *arg, uint8_t *value_ptr);

#endif
