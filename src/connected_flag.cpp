#include "connected_flag.h"
