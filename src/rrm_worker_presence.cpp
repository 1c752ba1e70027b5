#include "rrm_worker.h"
