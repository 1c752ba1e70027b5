#include "LockdepMutex.h"
