// What is done to an agent in a stage, and the look at it afterwards.
#ifndef TESTS_FAULTS_ACTS_H
#define TESTS_FAULTS_ACTS_H

#include "tests/faults/stage.h"

// Waits until the agent listens or has ended; finds its pid and opens the command channel. False when it has ended.
bool wait_up(subject *s);
// The same once the command thread has opened its channel, or tried to; the main thread need not listen yet.
std::string first_opening(subject *s);
// Sends "AT SA" + request (or the request itself when it begins with AT): "OK", "ERROR", the value, "no answer".
std::string ask(subject *s, const std::string &request);
// Closes the command channel, waits until its successor is there and is answered.
std::string hang_up(subject *s);
// Has a remote shell say something: what it said, or "no shell".
std::string remote_shell(subject *s);
// Leaves the listener after opening it.
std::string leave_listener(subject *s);
// Has the agent end, by request or by signal; returns how it ended.
std::string host_kill(subject *s);
std::string end_by(subject *s, int signal);
// Whether a kernel message arrives in the collector's file.
std::string kernel_message(subject *s);
// Kills the logcat child for the main buffer and waits until it is reaped.
std::string lose_logcat(subject *s);

// The threads, but for the main one, that sit in this system call, with a descriptor of `target` unless that is empty.
std::vector<pid_t> threads_in(const subject *s, long call, const std::string &target);

// What the first of two sorted lists has beyond the second.
std::vector<std::string> more(const std::vector<std::string> &now, const std::vector<std::string> &normal);

// What an agent may hold that fares as `normal`, but for its collectors.
health with_collectors(const health &normal, const std::vector<std::string> &collectors);

// When nothing fails any more. `normal` is how an agent fares that met no fault, null when this is one.
health look_after(subject *s, const health *normal);

#endif
