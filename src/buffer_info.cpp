#include "buffer_info.h"

#include <malloc.h>

#include "lum_trace.h"
#include "owned.h"

namespace {
constexpr std::size_t large_message =
    std::size_t{512} * 1024;  // bytes; a JSON tree takes ten times as many
}

buffer_info_t::~buffer_info_t() {
    if (message.size() < large_message)
        return;
    std::string().swap(message);
#ifdef __GLIBC__  // it keeps what is free behind any small piece in use
    malloc_trim(0);
#endif
}

const std::string& buffer_info_t::append(const char* data, unsigned len) {
    if (data != nullptr && len != 0)
        message.append(data, len);
    return message;
}

void buffer_info_t::dump() const {
    if (!trace.is_debug_enabled())
        return;
    const cfgtree_ptr tree{cfgtree_parse_buffer(message.data(), message.size())};
    if (tree)
        trace.debug("Buffer info dump:\n%s", cfgtree_serialize(tree.get()));
    else
        trace.debug("Buffer info dump: %s\n", message.c_str());
}
