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

std::string_view buffer_info_t::append(const char* data, unsigned len) {
    if (data != nullptr && len != 0) {
        make_head_room(len);
        message.append(data, len);
    }
    return text();
}

char* buffer_info_t::frame() {
    make_head_room(0);
    return message.data() + head_room;
}

void buffer_info_t::make_head_room(std::size_t text_size) {
    if (!message.empty())
        return;
    message.reserve(head_room + text_size);
    message.resize(head_room);
}

void buffer_info_t::dump() const {
    if (!trace.is_debug_enabled())
        return;
    const cfgtree_ptr tree{cfgtree_parse_buffer(c_str(), text().size())};
    if (tree)
        trace.debug("Buffer info dump:\n%s", cfgtree_serialize(tree.get()));
    else
        trace.debug("Buffer info dump: %s\n", c_str());
}
