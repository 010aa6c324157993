// A pseudo-terminal whose slave side is published under a fixed name.
//
//   host tool ──▶ m_pts_mapping_name_a (symbolic link) ──▶ m_pts_name_a (slave) ◀──kernel──▶ m_ptm_fd (master)
#ifndef PUB_PTY_PTY_H
#define PUB_PTY_PTY_H

#include <stdint.h>
#include <termios.h>

/** Who may open a published slave, as init and the host tools of the platform expect it. */
enum {
    PUB_PTY_MODE = 0660,
    PUB_PTY_USER = 1000,   // AID_SYSTEM
    PUB_PTY_GROUP = 1001,  // AID_RADIO
};

/**
 * One endpoint. The caller owns the record: it zeroes it, sets the mapping name and, if wanted, the mode, and then
 * leaves it to these operations. Not thread-safe: one thread at a time.
 */
struct pub_pty_st {
    int32_t m_ptm_fd;               // the master; 0 in a zeroed record, -1 after a close
    char m_pts_name_a[40];          // device path of the slave, NUL-filled
    char m_pts_mapping_name_a[28];  // path of the link that leads to the slave; survives a close
    int8_t is_nonblock_mode;        // non-zero: the master is non-blocking
};

/**
 * Opens a new pseudo-terminal in raw mode and publishes its slave, replacing whatever stood under the mapping name. The
 * slave is left to user 1000 and group 1001, mode 0660. An open record is closed first. The master is close-on-exec.
 *
 * @return 0; -101 for a null record or an empty mapping name; -118 when a system call failed. After a failure the
 *         record is closed, the link is gone and errno is that of the failed call; if the link could not be removed, the
 *         master stays open (see pub_pty_close).
 */
int32_t pub_pty_open(struct pub_pty_st *pty_ptr);

/**
 * Removes the link and closes the master.
 *
 * @return 0; -1 for a null record or one that is not open; -118 when the link could not be removed, and then the master
 *         stays open.
 */
int32_t pub_pty_close(struct pub_pty_st *pty_ptr);

/**
 * Removes the link if it leads anywhere.
 *
 * @return 0, also when there is nothing to remove; -101 for a null record; -118 when the removal failed.
 */
int32_t pub_pty_delete_mapping(struct pub_pty_st *pty_ptr);

/** Changes terminal attributes to raw mode: bytes pass unchanged, without echo and without signals from characters. */
void pub_pty_make_raw(struct termios *attr_ptr);

#endif
