// Result codes of the shared library; 0 is success.
#ifndef PUB_PUB_CODES_H
#define PUB_PUB_CODES_H

enum {
    PUB_ERR_FAIL = -1,       // nothing to act on
    PUB_ERR_PARAM = -101,    // a required pointer is missing or a descriptor is negative
    PUB_ERR_NO_PAIR = -104,  // a configuration line is a comment or has no "="
    PUB_ERR_SYSTEM = -118,   // a system call failed after the arguments were accepted
};

#endif
