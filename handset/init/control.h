// What init and the desk library agree on about the way in.
#ifndef HANDSET_INIT_CONTROL_H
#define HANDSET_INIT_CONTROL_H

#define CONTROL_SOCKET "/dev/.desk/control"

enum { CONTROL_PACKET = 65536 };  // longest request

#endif
