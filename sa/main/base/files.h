// Small file operations that several modules share. No state; any thread.
#ifndef SA_MAIN_BASE_FILES_H
#define SA_MAIN_BASE_FILES_H

/** Whether a path exists; a link is followed. */
bool sa_exists(const char *path);

/**
 * Shifts a file and its generations one up: PATH.count is removed, PATH.2 becomes PATH.3 and so on, PATH becomes PATH.1.
 * Results are ignored: a missing generation is normal.
 *
 * @param path   at most 56 characters.
 * @param count  the oldest generation that is kept, 1 to 9.
 */
void sa_shift_generations(const char *path, int count);

#endif
