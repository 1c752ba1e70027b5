// A cfgtree that is released when nobody holds it any more.
#ifndef PLATFORM_MSGBUS_TREE_H
#define PLATFORM_MSGBUS_TREE_H

#include <memory>

#include "cfgtree.h"

namespace msgbus {

struct ReleaseTree {
    void operator()(cfgtree_node* node) const { cfgtree_release(node); }
};
using Tree = std::unique_ptr<cfgtree_node, ReleaseTree>;

}  // namespace msgbus

#endif
