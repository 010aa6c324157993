// Result codes and identities that all modules of the agent share. A result is a signed long; 0 is success.
#ifndef SA_MAIN_BASE_CODES_H
#define SA_MAIN_BASE_CODES_H

enum {
    SA_ERR_FAIL = -1,        // generic failure, and the only code a client ever reads
    SA_ERR_COMMAND = -100,   // a command, a write or a start failed inside a handler or a collector
    SA_ERR_PARAM = -101,     // invalid argument; handlers answer nothing at all
    SA_ERR_NO_SPACE = -117,  // no space, on /data or in a table
    SA_ERR_SYSTEM = -118,    // a system call failed after the arguments were accepted
};

enum {
    SA_AID_LOG = 1007,    // group of collectors and of what they write
    SA_AID_SHELL = 2000,  // user of collectors and of what they write
};

/** The agent's name: its service, its log tag, what a second instance looks for. */
#define SA_NAME "zr-qel-sa"

#endif
