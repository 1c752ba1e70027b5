// link_cause: why a connection was not made, or ended.
#ifndef LUMD_LINK_CAUSE_H
#define LUMD_LINK_CAUSE_H

#include <libwebsockets.h>

#include <cstddef>
#include <string>
#include <string_view>

// Reads it out of what libwebsockets reports of one attempt and of the link that came of it. What
// is known first is the cause, what follows its consequence. On the link's thread.
class link_cause {
  public:
    // `subprotocol` is borrowed.
    explicit link_cause(const char* subprotocol) : subprotocol_(subprotocol) {}

    // Forgets the last attempt.
    void begin();

    // Every callback of the library, before the link acts on it.
    void see(lws* wsi, lws_callback_reasons reason, const void* in, std::size_t len);

    // The library has refused to begin, and has said nothing of it.
    void see_no_beginning();

    // The link itself has had enough.
    void note(std::string_view text);

    // In words; empty while none is known.
    [[nodiscard]] const std::string& text() const { return text_; }

    // Levels of log lines that hear() needs while there is no link.
    static constexpr int needed_lines = LWS_LIBRARY_VERSION_NUMBER < 4003000 ? LLL_DEBUG : 0;

    // A log line of the library: before 4.3 only such a one has the error of a connection.
    static void hear(const char* line);

  private:
    void learn(lws* wsi, lws_callback_reasons reason, const void* in, std::size_t len);
    [[nodiscard]] std::string connection_error(lws* wsi, const std::string& reported) const;

    const char* const subprotocol_;
    std::string text_;
    bool begun_ = false;  // and given up again, without a report
    int end_errno_ = 0;   // then
};

#endif
