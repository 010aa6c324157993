// The text of an error number, for log lines of any context.
#ifndef PUB_UTIL_ERROR_TEXT_H
#define PUB_UTIL_ERROR_TEXT_H

/**
 * The C library's text for an error number.
 *
 * Unlike `strerror` of some C libraries it translates nothing, so it meets neither locale locks nor the heap: a signal
 * handler and a child between fork and exec may call it.
 *
 * @param error_number  an errno value.
 * @return the text, never null; that of an unknown number lasts until the thread's next call with an unknown number.
 */
const char *pub_util_error_text(int error_number);

#endif
