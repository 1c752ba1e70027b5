#include "msgbus_broker.h"
