// Owners of what C interfaces hand out.
#ifndef LUMD_OWNED_H
#define LUMD_OWNED_H

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "cfgtree.h"
#include "msgbus.h"

// For what malloc(3) and its kin gave.
struct free_deleter {
    void operator()(void* memory) const { std::free(memory); }
};

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

struct cfgtree_releaser {
    void operator()(cfgtree_node* node) const { cfgtree_release(node); }
};
using cfgtree_ptr = std::unique_ptr<cfgtree_node, cfgtree_releaser>;

// Its end leaves the bus.
struct msgbus_releaser {
    void operator()(msgbus_context* ctx) const { msgbus_release(ctx); }
};
using msgbus_ptr = std::unique_ptr<msgbus_context, msgbus_releaser>;

#endif
