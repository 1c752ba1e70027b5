#include "abstract_worker.h"
