// System calls that fail on demand. The linker replaces the calls of the functions under test (see CMakeLists.txt) by those
// in faults.cpp, which make the real call unless a test has requested a failure. Forked children inherit the request.
#ifndef TESTS_UNIT_FAULTS_H
#define TESTS_UNIT_FAULTS_H

#include <stdint.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

// The next call of `call` by this process fails with `error`, after `skip` calls that pass. Calls that return their error
// (pthread_create, pthread_kill, ptsname_r) return it. In force for one failure; a new request replaces an old one.
void fail_call(const std::string &call, int error, int skip = 0);
// The next calls of `call` fail one after the other, each with its error; at most eight.
void fail_calls(const std::string &call, const std::vector<int> &errors);
// The same for every call from now on.
void fail_every_call(const std::string &call, int error);
// All calls pass again; returns how often the last requested one has failed.
int pass_calls();

// ptsname_r reports this name instead of the true one; "" ends that.
void rename_slaves(const std::string &name);
// What is opened below /proc with this last part is opened at `path` instead; "" ends that.
void divert_open(const std::string &last_part, const std::string &path);
// write of more than `limit` bytes to this descriptor writes that many; -1 ends that.
void shorten_writes(int fd, size_t limit);
// The last chown that was asked for: "/dev/ttyT 1000:1001"; "" after fail_call.
std::string last_chown();
// Pauses (usleep of 10 ms and more) take a twentieth of their time from now on; false ends that.
void shorten_pauses(bool is_shortened);
// How many pauses of exactly this length this process has made since.
int pauses_of(useconds_t length);
// How often this process has closed a descriptor that was not open since the last request for a failure.
int bad_closes();
// waitpid returns `result` with this status `times` times before it looks for true ends. Written into by any thread.
void replace_waits(pid_t result, int status, int times);
// statfs tells of so many available blocks of this size; a size of 0 ends that.
void describe_space(uint64_t available, long block_size);
// The clock shows this many nanoseconds of its second; -1 ends that.
void stop_nanoseconds(long nanoseconds);

#endif
