// The command layer's state record.
#ifndef SA_SA_HANDLE_COMMAND_STATE_H
#define SA_SA_HANDLE_COMMAND_STATE_H

#include <stdint.h>

#include "pub/pty/pty.h"
#include "pub/util/worker.h"

/** A request being read, or a response being sent. `data` is NUL-terminated: at most 199 bytes are used. */
struct sa_msg_st {
    uint16_t len;    // valid bytes; the text ends earlier when they hold a NUL
    char data[200];  // the text
};

/** Cleared by sa_handle_init before any thread of this layer exists. */
struct sa_handle_st {
    struct pub_thread_id m_read_cmd_thread_id;  // sa_handle_init
    struct pub_pty_st pty;                      // channel.cpp alone, after the clearing
    struct sa_msg_st req;                       // command reader thread
    struct sa_msg_st rsp;                       // command reader thread
    uint8_t m_is_packets_capture;               // 0 or 1: command reader thread
    uint8_t m_is_kernel_log;                    // likewise
    uint8_t m_is_dmesg_log;                     // likewise
};

/** The one record. */
extern struct sa_handle_st m_sa_handle;

#endif
