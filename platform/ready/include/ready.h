// A daemon tells who has started it that it can be used: sd_notify(3), without its library.
#ifndef PLATFORM_READY_H
#define PLATFORM_READY_H

// Does nothing where nobody has asked for it. Never waits. Any thread.
void tell_ready();

#endif
