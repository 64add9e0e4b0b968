#pragma once
// For the host's other services that run threads of their own.

// Registers the timer queue's fork handlers now, if they are not yet.
// Fork handlers prepare in the reverse order of their registration, so a
// service whose thread may arm deferred calls registers its own handlers
// after calling this: its thread is then brought to rest before the fork
// takes the timer lock, which that thread might need to get there.
void host_thread_call_register_atfork(void);
