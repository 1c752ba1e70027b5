#include "logsink.h"
