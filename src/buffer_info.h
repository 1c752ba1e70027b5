// buffer_info_t: one message, normally a JSON document, as it travels between workers.
#ifndef LUMD_BUFFER_INFO_H
#define LUMD_BUFFER_INFO_H

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

// Shared by pointer and never copied between threads. Filled by one thread before it is enqueued,
// read-only from then on until one owner alone is left.
class buffer_info_t {
  public:
    // The end of a large message gives the memory of its text and of what was made of it back to
    // the system.
    ~buffer_info_t();

    // Appends exactly `len` bytes, embedded NULs included; null or 0 leaves the text as it is.
    // Returns the whole text.
    std::string_view append(const char* data, unsigned len);

    // Logs the text at debug level, as an indented tree when it is JSON.
    void dump() const;

    [[nodiscard]] std::string_view text() const {
        return std::string_view(message).substr(std::min(head_room, message.size()));
    }
    // The same, with a NUL behind it.
    [[nodiscard]] const char* c_str() const { return text().data(); }

    // Bytes in front of the text that whoever sends it may fill: the head of a frame.
    static constexpr std::size_t head_room = 16;

    // The text for its last owner, who may write into it and into the head room.
    [[nodiscard]] char* frame();

  private:
    void make_head_room(std::size_t text_size);

    std::string message;  // behind the head room, which is there with the first bytes
};

using buffer_info_ptr = std::shared_ptr<buffer_info_t>;

#endif
