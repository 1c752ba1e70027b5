#include "factorydata.h"
