// The kernel-message collector: a thread that copies /proc/kmsg into kmsg.log.
#ifndef SA_SA_HANDLE_COLLECT_KMSG_H
#define SA_SA_HANDLE_COLLECT_KMSG_H

#include "sa/sa-handle/collect/log_svc.h"

/**
 * The newest reader. Written by the main thread at start-up and by the command reader thread afterwards, which also stops
 * it when its switch is turned off.
 */
extern struct pub_thread_id m_read_kernel_log_tid;

/**
 * Starts a reader thread and stores its id. It takes its settings from the position-3 record. A second reader beside a
 * running one shares the stream with it.
 *
 * @return 0 or an error number.
 */
int start_kernel_reader(void);

/**
 * The kernel branch of start_zr_log_service: starts a reader and makes the kernel console verbose. A collector that is
 * switched off makes it quiet. Returns 0, or -100 when the thread cannot be created.
 */
long start_kmsg_service(struct log_svc_rec *rec_ptr);

#endif
