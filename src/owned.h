// Owners of what the C library hands out.
#ifndef LUMD_OWNED_H
#define LUMD_OWNED_H

#include <cstdio>
#include <cstdlib>
#include <memory>

// For what malloc(3) and its kin gave.
struct free_deleter {
    void operator()(void* memory) const { std::free(memory); }
};

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

#endif
