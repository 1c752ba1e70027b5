// What runs the programs of a cross build here.
#ifndef TESTS_EMULATOR_H
#define TESTS_EMULATOR_H

#include <string>
#include <vector>

// The emulator's command; empty where the machine runs the programs itself.
inline std::vector<std::string> emulator() {
    return {EMULATOR};
}

// An emulator of the kernel's calls passes some results on as the machine below gives them.
inline bool emulated() {
    return !emulator().empty();
}

#endif
