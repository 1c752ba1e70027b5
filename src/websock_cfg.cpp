#include "websock_cfg.h"
