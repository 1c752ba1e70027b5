// The run flags of the process and the signal handler that clears them.
#ifndef LUMD_RUN_FLAGS_H
#define LUMD_RUN_FLAGS_H

// Run flags, one per worker; false means stop. Written by main and by the signal handler, polled
// by the workers' loops without locking, hence volatile (see signal-safety(7)).
extern volatile bool ipc_run;        // message-bus worker, portal mode
extern volatile bool portal_run;     // websocket worker, portal mode
extern volatile bool rrm_run;        // RRM worker, its message-bus worker and the driver
extern volatile bool orvanta_run;    // websocket worker, RRM mode
extern volatile bool wids_run;       // WIDS worker and the driver in WIDS mode
extern volatile bool wids_sock_run;  // websocket worker, WIDS mode

// Handler of SIGTERM and SIGINT: clears the six run flags and nothing else; each worker notices
// within its own poll period. Async-signal-safe.
void lumd_handle_signal(int signal_number);

#endif
