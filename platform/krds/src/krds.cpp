#include "krds.h"
