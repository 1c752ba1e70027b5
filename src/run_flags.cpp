#include "run_flags.h"

volatile bool ipc_run = false;
volatile bool portal_run = false;
volatile bool rrm_run = false;
volatile bool orvanta_run = false;
volatile bool wids_run = false;
volatile bool wids_sock_run = false;

void lumd_handle_signal(int) {
    ipc_run = false;
    portal_run = false;
    rrm_run = false;
    orvanta_run = false;
    wids_run = false;
    wids_sock_run = false;
}
