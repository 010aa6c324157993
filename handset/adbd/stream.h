// The streams of one connection: each joins a service of the handset with a client of the PC's adb server.
#ifndef HANDSET_ADBD_STREAM_H
#define HANDSET_ADBD_STREAM_H

// Serves one adb server on a connected socket until the connection ends; then all its services are closed. Blocks.
void serve_connection(int fd);

#endif
