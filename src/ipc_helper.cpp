#include "ipc_helper.h"
