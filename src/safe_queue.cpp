#include "safe_queue.h"

#include <cstring>
#include <utility>

#include "json_writer.h"

void safe_queue::enqueue_json(json_writer& w) {
    const char* text = w.serialize();
    if (*text == '\0')
        return;  // told by the writer
    auto buffer = std::make_shared<buffer_info_t>();
    buffer->append(text, static_cast<unsigned>(std::strlen(text)));
    enqueue(std::move(buffer));
}
