#include "ioctl_ops.h"
