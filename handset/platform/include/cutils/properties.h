// System properties, as the platform's own header declares them to programs: the part that the agent and its desk handset use.
#ifndef CUTILS_PROPERTIES_H
#define CUTILS_PROPERTIES_H

#ifdef __cplusplus
extern "C" {
#endif

// Sizes with the terminating NUL.
#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value of `key`, or `default_value` (may be null) when it is unset or empty, into `value`
// (PROPERTY_VALUE_MAX bytes). Returns the length of what was copied. Asks nobody: values are read from shared memory.
int property_get(const char *key, char *value, const char *default_value);

// Asks init to set `key`; returns 0 once init has accepted it, -1 when it refused or could not be reached.
int property_set(const char *key, const char *value);

#ifdef __cplusplus
}
#endif

#endif
