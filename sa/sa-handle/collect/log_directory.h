// The collectors' log directory, and whether /data has enough free space.
#ifndef SA_SA_HANDLE_COLLECT_LOG_DIRECTORY_H
#define SA_SA_HANDLE_COLLECT_LOG_DIRECTORY_H

/**
 * Makes sure that a log directory exists. One level is made, mode 0771, owner 2000:2000; an existing one is left alone.
 * Thread of start_log_service.
 *
 * @return 0, or -100.
 */
long check_zr_log_path(const char *log_path);

/** Whether /data has enough free space for collection: 0, or -100 below 5 per cent or 256000 KB, whichever is less. Any thread. */
long sa_is_can_start_log_service(void);

#endif
