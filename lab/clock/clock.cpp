#include <ctime>
