// Low-space protection of /data.
#ifndef SA_MAIN_PROTECT_H
#define SA_MAIN_PROTECT_H

/**
 * When less than 3 MiB of /data are free, removes one file of the reserve in /data/.protect/: the one whose name sorts
 * last. Main thread, once a start; logs to the platform log alone.
 */
void protect_data(void);

#endif
