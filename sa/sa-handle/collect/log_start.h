// Starting and stopping all collectors. Main thread at start-up, command reader thread afterwards; the stop also in the
// handler of SIGUSR2, on any thread.
#ifndef SA_SA_HANDLE_COLLECT_LOG_START_H
#define SA_SA_HANDLE_COLLECT_LOG_START_H

#include "sa/sa-handle/collect/log_svc.h"

/**
 * Reads the property, prepares the log directory and starts the collectors in their fixed order; a failing start does
 * not stop the later ones. Stops nothing that runs. Blocks for 100 ms for each child.
 *
 * @return 0; -100 when property or directory failed; else the OR of the five starts' results.
 */
int32_t start_log_service(void);

/**
 * Starts packet capture or the kernel-message reader, by the record's type_id; any other type_id does nothing.
 *
 * @return 0 or a negative code; -100 for a null record.
 */
long start_zr_log_service(struct log_svc_rec *rec_ptr);

/** Sends every collector its signal (SIGKILL to children, SIGUSR1 to the thread) and waits for none of them. */
void sa_kill_all_child_service_ex(void);

#endif
