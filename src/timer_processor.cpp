#include "timer_processor.h"
