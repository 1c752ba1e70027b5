#include "safe_queue.h"
