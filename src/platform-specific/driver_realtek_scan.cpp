#include "driver_realtek.h"
