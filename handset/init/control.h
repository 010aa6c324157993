// What init and the desk library agree on about the way in, and about handsets in place.
#ifndef HANDSET_INIT_CONTROL_H
#define HANDSET_INIT_CONTROL_H

#define CONTROL_SOCKET "/dev/.desk/control"

// Of handsets in place: locked by the one that there is, and not empty while what it made is there.
#define PLACE_REGISTER "/.desk-handset"

enum { CONTROL_PACKET = 65536 };  // longest request

#endif
