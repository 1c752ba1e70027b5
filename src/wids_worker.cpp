#include "wids_worker.h"
