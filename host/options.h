#pragma once
// The choices of one run, filled by main from the command line and handed to every sub-command by reference.

#include <string>

struct host_options {
    std::string root = "/";                // the handset's root directory as this process sees it
    bool is_adb = false;                   // reach the handset through adb
    std::string serial;                    // the handset's serial number for adb, empty for the only one there is
    std::string tty;                       // reach it over this serial line, "DEVICE" or "DEVICE,SPEED"; empty for none
    std::string channel = "/dev/ttyCMD0";  // published name of the command channel, inside root
    std::string listener = "/dev/ttysa1";  // published name of the remote-shell listener, inside root
    int timeout_s = 0;                     // how long to wait for an answer; 0: what the request usually needs
    bool is_patient = false;               // the time-out also covers a channel that is not there yet
    bool is_verbose = false;               // show the lines that a request leaves in the handset's log
    bool is_json = false;                  // query, sets, status: results as JSON
    bool is_quiet = false;                 // query: the exit status alone tells the result
    bool is_follow = false;                // log: go on with what is written from now on
    int line_count = -1;                   // log: how many lines to begin with, -1: all
    std::string wait_for = "up";           // wait: up or down
    bool is_stderr_apart = false;          // shell: the command's standard error comes out on standard error
    bool is_raw = false;                   // send: show the bytes of both directions
    bool is_bare = false;                  // shell: send the command as it is, without the part that reports its status
    bool is_no_input = false;              // shell: the command reads nothing
    bool is_terminal = false;              // shell: a command gets the terminal in raw mode, like a shell does
    bool is_echo = false;                  // console: print each line before it is run
    bool is_stop = false;                  // console: end at the first line that fails
    std::string since;                     // view: the earliest time to show, empty for no bound
    std::string until;                     // view: the latest time
    std::string grep;                      // view: expression that lines must match, empty for all lines
    std::string only;                      // view: sources with commas between them, empty for all
    std::string html;                      // view: file to write a page to, empty for text
    std::string fetch_dir;                 // save-log: directory to copy the saved set into, empty for none
};
