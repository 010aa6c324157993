// The way in of the log daemon: a socket for datagrams and the thread that empties it.
#ifndef HANDSET_LOGD_INTAKE_H
#define HANDSET_LOGD_INTAKE_H

// Makes /dev/socket/logdw (0222, so that everyone may write). Returns the descriptor, or -1 with errno.
int intake_open();
// Takes records from `socket` for ever: checks them, stores them, hands them to the journal and adds 1 to the eventfd
// `news` after each burst. The daemon's own thread, nothing else may delay it: senders drop what does not fit the queue.
void intake_run(int socket, int news);

#endif
