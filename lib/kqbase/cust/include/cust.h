// cust_: configuration by key. A key is looked up first as an environment
// variable of the same name, then in the key=value file named by the
// environment variable SFL_CONFIG. An absent key gives null.
#ifndef KQ_CUST_H
#define KQ_CUST_H

// Returns the value of `key`, or null when the key is absent. A value from
// the environment stays valid for the life of the process, one from the
// file until cust_Reload.
const char* cust_GetCustomiseInfo(const char* key);
// Forgets what was read from the configuration file (tests change it).
void cust_Reload();
// The value of `key` as a decimal number from `lo` to `hi`; `fallback` when
// the key is absent or empty, is not wholly a number, or is out of range.
long cust_GetBoundedLong(const char* key, long fallback, long lo, long hi);

#endif  // KQ_CUST_H
