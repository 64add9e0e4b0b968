#pragma once
// Deferred calls: one-shot timers that run a function on the host's timer
// thread at a deadline.

#include "host/types.h"

typedef struct thread_call* thread_call_t;
typedef void* thread_call_param_t;
typedef void (*thread_call_func_t)(thread_call_param_t param0, thread_call_param_t param1);

// NULL when memory runs out.
thread_call_t thread_call_allocate(thread_call_func_t func, thread_call_param_t param0);
// Arms the call for the deadline (nanoseconds on the clock of
// clock_interval_to_deadline). Returns true when it was already pending (it
// is then re-armed for the new deadline).
bool thread_call_enter_delayed(thread_call_t call, uint64_t deadline);
// Disarms a pending call. Returns true when it was pending and will not run;
// false when it was not pending (never armed, already ran, or running now).
bool thread_call_cancel(thread_call_t call);
// Frees the call; it must not be pending. If its function is still running,
// waits until it has returned. Returns true.
bool thread_call_free(thread_call_t call);

// deadline = now + interval × scale_factor nanoseconds (monotonic clock).
void clock_interval_to_deadline(uint32_t interval, uint32_t scale_factor, uint64_t* result);
uint64_t mach_absolute_time(void);  // monotonic nanoseconds
