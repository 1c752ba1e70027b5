// buffer_info_t: one message, normally a JSON document, as it travels between workers.
#ifndef LUMD_BUFFER_INFO_H
#define LUMD_BUFFER_INFO_H

#include <memory>
#include <string>

// Shared by pointer and never copied between threads. Filled by one thread before it is enqueued,
// read-only from then on.
class buffer_info_t {
  public:
    // The end of a large message gives the memory of its text and of what was made of it back to
    // the system.
    ~buffer_info_t();

    // Appends exactly `len` bytes, embedded NULs included; null or 0 leaves the text as it is.
    // Returns the whole text.
    const std::string& append(const char* data, unsigned len);

    // Logs the text at debug level, as an indented tree when it is JSON.
    void dump() const;

    [[nodiscard]] const std::string& text() const { return message; }

  private:
    std::string message;
};

using buffer_info_ptr = std::shared_ptr<buffer_info_t>;

#endif
