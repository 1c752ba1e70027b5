#include "MacAddr.h"
