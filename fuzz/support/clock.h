// The monotonic clock of a target: it stands still but where an input moves it, so that an input
// gives the same run each time and timers are due without waiting.
#ifndef FUZZ_CLOCK_H
#define FUZZ_CLOCK_H

namespace fuzz {

// By that many seconds.
void advance_clock(int seconds);

}  // namespace fuzz

#endif
