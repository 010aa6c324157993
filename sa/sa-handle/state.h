// The command and log layer's state, and who may touch the command channel's endpoint.
#ifndef SA_SA_HANDLE_STATE_H
#define SA_SA_HANDLE_STATE_H

#include <signal.h>
#include <stdint.h>

#include "pub/pty/pty.h"
#include "pub/util/worker.h"

/** A request being read, or a response being sent. `data` is NUL-terminated: at most 199 bytes are used. */
struct sa_msg_st {
    uint16_t len;    // valid bytes; the text ends earlier when they hold a NUL
    char data[200];  // the text
};

/** Zeroed by sa_handle_init before any thread of this layer exists. */
struct sa_handle_st {
    pub_thread_id m_read_cmd_thread_id;  // sa_handle_init
    struct pub_pty_st pty;               // the holder of the channel (below)
    struct sa_msg_st req;                // command reader thread
    struct sa_msg_st rsp;                // command reader thread
    // The newest kernel-message reader: written by whoever starts one (sa_handle_init, then the command reader thread).
    pub_thread_id m_read_kernel_log_tid;
    uint8_t m_is_packets_capture;  // 0 or 1: command reader thread
    uint8_t m_is_kernel_log;       // likewise
    uint8_t m_is_dmesg_log;        // likewise
};

/** The one record. */
extern struct sa_handle_st m_sa_handle;

/**
 * Takes the endpoint record for opening or closing it. The command reader thread owns the endpoint, but a teardown, on
 * whichever thread a signal finds, closes it too; each waits here for the other to finish its step. The holder takes no
 * signals, so a handler never waits for the thread it interrupted; a step makes a few system calls that do not block.
 *
 * @param mask_ptr  receives the signal mask for sa_channel_release.
 * @return whether the channel is still in service: after sa_channel_retire nobody opens it.
 */
bool sa_channel_hold(sigset_t *mask_ptr);
/** Ends one sa_channel_hold, with the mask that it gave. */
void sa_channel_release(const sigset_t *mask_ptr);

/** Called by a teardown that holds the channel: takes it out of service. */
void sa_channel_retire(void);

/**
 * Called by a teardown that holds the channel, before it closes the endpoint. The command reader thread may be about to
 * answer: the number that it knows must not become somebody else's descriptor, such as that of the teardown's own request
 * to init. From now on the number leads to nowhere, and the record names another one.
 */
void sa_channel_park(void);

/** Called by the command reader thread, holding the channel, when it is done with the number: gives it back. */
void sa_channel_unpark(void);

/** Called when the process goes on after its teardown after all: the reader may open the channel again. */
void sa_channel_reinstate(void);

#endif
