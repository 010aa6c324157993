// Reading `key = value` configuration files.
#ifndef PUB_CFG_CFG_H
#define PUB_CFG_CFG_H

#include <stdint.h>
#include <stdio.h>

/**
 * Reads one line, or the next piece of a line too long for the buffer.
 *
 * @param stream_ptr  an open stream.
 * @param line_ptr    receives the text, line end included; zeroed as a whole first.
 * @param size        of the buffer, at least 3; at most size - 2 characters are read.
 * @param length_ptr  receives the text's length.
 * @param is_eof_ptr  receives 1 when there was nothing left to read (reported with an empty text, one call after the
 *                    last line) or the stream cannot be read, else 0.
 * @return 0, or -101 when a pointer is missing.
 */
int32_t pub_cfg_get_line(FILE *stream_ptr, char *line_ptr, int32_t size, int32_t *length_ptr, int32_t *is_eof_ptr);

/**
 * Splits a line at its first "=" in place. Blanks (spaces alone) around the key and in front of the value go, and so do
 * spaces and line ends behind the value. Key and value may come out empty.
 *
 * @param line_ptr        the line; NULs are written into it, and the results point into it.
 * @param param_pptr      receives the key.
 * @param value_pptr      receives the value.
 * @return 0, -104 for a comment ("#" first) or a line without "=", -101 when a pointer is missing.
 */
int32_t pub_cfg_get_param_and_value(char *line_ptr, char **param_pptr, char **value_pptr);

#endif
