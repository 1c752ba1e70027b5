#include "antcfg.h"
