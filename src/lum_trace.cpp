#include "lum_trace.h"
