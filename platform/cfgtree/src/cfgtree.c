#include "cfgtree.h"
