// The kernel-message collector: a thread that copies /proc/kmsg into kmsg.log.
#ifndef SA_SA_HANDLE_KMSG_H
#define SA_SA_HANDLE_KMSG_H

#include "sa/sa-handle/log_svc.h"

/**
 * Starts a reader thread and stores its id in m_sa_handle. It takes its settings from the position-3 record. Whoever
 * starts a second one while the first runs has two readers share the stream.
 *
 * @return 0 or an error number.
 */
int start_kernel_reader(void);

/** The kernel branch of start_zr_log_service: reader and verbose console, or, switched off, a quiet console. */
long start_kmsg_service(struct log_svc_rec *rec_ptr);

#endif
