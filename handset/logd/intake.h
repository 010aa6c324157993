// The way in of the log daemon: a socket for datagrams and the threads behind it.
#ifndef HANDSET_LOGD_INTAKE_H
#define HANDSET_LOGD_INTAKE_H

// Makes /dev/socket/logdw (0222, so that everyone may write). Returns the descriptor, or -1 with errno.
int intake_open();
// Starts the threads that take records from `socket` for ever, store them, add 1 to the eventfd `news` for the
// readers, and write the journal. The one at the socket does nothing else: senders drop what does not fit its queue.
void intake_start(int socket, int news);

#endif
