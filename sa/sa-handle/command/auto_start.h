// The services that are started together with the agent: ten names, mirrored to /data/zr-qel-sa/auto-start.lst.
#ifndef SA_SA_HANDLE_COMMAND_AUTO_START_H
#define SA_SA_HANDLE_COMMAND_AUTO_START_H

/** Reads the list; whatever is missing or broken leaves it empty or shorter. Main thread, before the reader exists. */
void auto_start_service_list_read(void);

/** Asks init to start every listed service, in slot order; does not wait for any. Main thread, after the read. */
void auto_start_service_list_run(void);

#endif
