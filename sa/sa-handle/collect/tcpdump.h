// The packet-capture collector: a tcpdump child that keeps a ring of pcap files.
#ifndef SA_SA_HANDLE_COLLECT_TCPDUMP_H
#define SA_SA_HANDLE_COLLECT_TCPDUMP_H

#include "sa/sa-handle/collect/log_svc.h"

/**
 * The packet branch of start_zr_log_service: finds or makes a tcpdump program, prepares the first file and starts the
 * child. Blocks for 100 ms.
 *
 * @return 0, also when switched off; -118 without any tcpdump; -100 when the child could not be started.
 */
long start_ipdata_service(struct log_svc_rec *rec_ptr);

#endif
