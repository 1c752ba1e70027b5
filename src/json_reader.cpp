#include "json_reader.h"
