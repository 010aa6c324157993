// Finding processes by name.
//
// A process matches a name when the name occurs anywhere in the first argument of its command line, its path included:
// a substring, case-sensitive, on purpose. The first argument ends at the first NUL or blank of the first 511 bytes.
#ifndef SA_MAIN_BASE_PROCESS_H
#define SA_MAIN_BASE_PROCESS_H

#include <stdint.h>

/**
 * Finds the first matching process, in the order of /proc.
 *
 * @param name     not empty.
 * @param pid_ptr  receives the process id, or 0 when none matches.
 * @return 0, found or not; -1 for an invalid argument or an unreadable /proc.
 */
long sa_util_get_pid(const char *name, int32_t *pid_ptr);

/**
 * Finds all matching processes.
 *
 * @param name       not empty.
 * @param pids_ptr   receives the ids, ended by a 0.
 * @param length     of pids_ptr, at least 2; at most length - 1 ids are stored.
 * @param count_ptr  receives how many were stored.
 * @return 0; -1 for an invalid argument or an unreadable /proc.
 */
long sa_util_get_pids(const char *name, int32_t *pids_ptr, int32_t length, int32_t *count_ptr);

/**
 * Whether a process of that name runs.
 *
 * @param name            not empty.
 * @param is_running_ptr  receives 1 or 0; 0 as well when the lookup failed.
 * @param pid_ptr         receives what the lookup found, or 0.
 * @return 0; -101 for an invalid argument.
 */
long util_is_process_running(const char *name, int32_t *is_running_ptr, int32_t *pid_ptr);

#endif
