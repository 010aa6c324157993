// Generations of the diagnostic file.
#ifndef SA_MAIN_LOG_ROTATE_H
#define SA_MAIN_LOG_ROTATE_H

/**
 * Shifts sa.log and its generations one up (sa.log.1 is the newest, sa.log.5 the oldest), and leaves an empty live file
 * of user 2000, group 1007, mode 0644. Runs once, first of all, on the main thread; a failing step is logged to the
 * platform log, and the next step follows.
 */
void update_sa_logs(void);

#endif
