// Handsets for measurements, and the dialogue with their agent. Any failure ends the program (give_up).
#ifndef BENCH_HANDSETS_H
#define BENCH_HANDSETS_H

#include <string>
#include <vector>

#include "bench/measure.h"
#include "handset/desk/desk.h"

// ---- handsets

// No collector runs.
desk_options without_collectors();
// Boots and waits until the agent has answered OK. `sa-bench-inside` is at /desk/inside.
desk *boot_handset(desk_options options);
// The host's pid of the agent.
pid_t agent_of(desk *h);
// Stops the service and removes the names that a killed agent leaves, which may point to the next agent's terminals.
void stop_agent(desk *h);
// Stops it and starts it again; waits for its OK.
void restart_agent(desk *h);

// ---- channels

// Opens a terminal as soon as possible; retries without a pause.
int open_terminal(desk *h, const std::string &path);
// Opens the command channel and waits for its first OK. Just after a hang-up it may open the old terminal, which the agent
// is about to replace; then it opens the name again.
int open_channel(desk *h);
// Sends a request and waits for an answer that ends with OK. Returns whether it came in time.
bool try_request(int channel, const std::string &request, int limit_ms);
void request_ok(int channel, const std::string &request);
// Asks for a remote shell and opens its terminal. `listener` is open.
int open_shell(desk *h, int listener, const std::string &command);
void write_text(int fd, const std::string &text);
// Reads until the end or `limit` bytes; returns the number of bytes.
size_t read_all(int fd, size_t limit);

// ---- programs

// Runs /desk/inside with these words; returns the numbers that it printed, one line a row.
std::vector<std::vector<double>> run_inside(desk *h, const std::vector<std::string> &words, int limit_ms = 300000);
// Starts a program of the handset that ends with it. Its streams as in desk_program.
desk_child start_program(desk *h, const std::vector<std::string> &argv, int in = -1, int out = -1);
void end_program(desk *h, desk_child *child);
std::string run_shell(desk *h, const std::string &command);

// ---- dropbear, as a peer

// Copies keys and an account into the handset. Call it between boot and start_dropbear.
void prepare_dropbear(desk *h);
desk_child start_dropbear(desk *h);

// ---- processes, by host pid

struct memory {
    double pss = 0;       // KiB, all three
    double private_ = 0;  // clean and dirty
    double dirty = 0;     // private dirty
};
// Pins all threads of a process, by host pid, to a processor; -1: any. Does nothing on a machine with one processor.
void keep_on_processor(pid_t host_pid, int processor);

// Of a process of the host's.
memory memory_of(pid_t host_pid);
int descriptors_of(pid_t host_pid);

#endif
