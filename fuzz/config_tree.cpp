// The JSON text of a configuration tree: a tree writes what reads as the same tree.
#include <memory>

#include "cfgtree.h"
#include "input.h"
#include "owned.h"

namespace {

cfgtree_ptr parse(const std::string& text) {
    return cfgtree_ptr{cfgtree_parse_buffer(text.data(), text.size())};
}

void ask(cfgtree_node* node) {
    for (const char* name : {"command", "value", "status", ""}) {
        cfgtree_get_param(node, name);
        cfgtree_get_child(node, name);
    }
    cfgtree_object_to_string(node);
    cfgtree_serialize(node);
    const std::size_t count = cfgtree_array_length(node);
    for (std::size_t i = 0; i <= count; ++i)
        fuzz::require(i < count || cfgtree_array_at(node, i) == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // No NUL stands behind a buffer.
    const std::unique_ptr<char[]> exact{new char[size]};
    fuzz::as_text(data, size).copy(exact.get(), size);
    const cfgtree_ptr tree{cfgtree_parse_buffer(exact.get(), size)};
    if (!tree)
        return 0;
    ask(tree.get());
    const std::string written = cfgtree_serialize_compact(tree.get());
    const cfgtree_ptr again = parse(written);
    fuzz::require(again && written == cfgtree_serialize_compact(again.get()));
    cfgtree_set_param(tree.get(), "command", "set");
    return 0;
}
