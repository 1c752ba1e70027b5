// link_diary: what an operator is told of a link that is down.
#ifndef LUMD_LINK_DIARY_H
#define LUMD_LINK_DIARY_H

#include <ctime>
#include <optional>
#include <string>

// One warning when the cause changes, one an hour while it stays, and one line of information when
// the link is up again, for whom warnings or information are enabled. Each `now` is in seconds of
// the same clock, which does not go back.
class link_diary {
  public:
    // Seconds that a link must last to count as up: a service that closes each one at once is
    // still one and the same trouble.
    static constexpr std::time_t lasting = 10;

    static constexpr std::time_t repeat = 3600;  // seconds between two warnings of one cause

    // `name` begins each line; the others are where the link leads. Borrowed.
    link_diary(const char* name, const std::string& host, int port, const std::string& path)
        : name_(name), host_(host), port_(port), path_(path) {}

    // An attempt has failed, or the link has ended. Without a cause there is nothing to tell.
    void down(const std::string& cause, std::time_t now);

    // The link is established.
    void up(std::time_t now);

    // While it is: once in a while.
    void look(std::time_t now);

  private:
    void warn(std::time_t now);

    const char* const name_;
    const std::string& host_;
    const int port_;
    const std::string& path_;
    std::string cause_;                    // told last; empty: all is well
    std::time_t told_ = 0;                 // when
    int times_ = 0;                        // how often since then
    std::optional<std::time_t> up_since_;  // after trouble
};

#endif
