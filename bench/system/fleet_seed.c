/*
 * Preloaded into an agent of a fleet: its random numbers begin with $FLEET_SEED, as if it had been
 * started in that second.
 */
#include <stdlib.h>

void srand(unsigned seed) {
    const char* chosen = getenv("FLEET_SEED");
    srandom(chosen ? (unsigned)strtoul(chosen, NULL, 10) : seed);
}
