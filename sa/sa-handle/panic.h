// Saving the panic records that the platform left behind.
#ifndef SA_SA_HANDLE_PANIC_H
#define SA_SA_HANDLE_PANIC_H

/**
 * When any record stands in /data/dontpanic, shifts the saved generations of all three sets, copies what there is to
 * /data/log/SystemLog with the date appended, and removes the sources. Main thread, once a start.
 */
void sa_save_panic_records(void);

#endif
