#pragma once
// Wall-clock time.

#include "host/types.h"

// Current time of day (UTC, seconds and nanoseconds since 1970).
void nanotime(struct timespec* ts);
void microtime(struct timeval* tv);

// Tests can fix the clock: nanotime then returns *ts until cleared (NULL).
void host_set_nanotime(const struct timespec* ts);
