#include "json_writer.h"
