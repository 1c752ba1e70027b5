#include "ipc_worker.h"
