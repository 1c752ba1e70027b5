#include "buffer_info.h"
