#include "msgbus.h"
