// BrokerSocket is the broker's door: the listening AF_UNIX socket and its file.
//
// One thread at a time.
#ifndef PLATFORM_MSGBUS_BROKER_SOCKET_H
#define PLATFORM_MSGBUS_BROKER_SOCKET_H

#include <poll.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

#include "frame.h"

namespace msgbus {

class BrokerSocket {
  public:
    // The socket file will have that group, unless none, and those access bits.
    BrokerSocket(std::string path, std::optional<gid_t> group, mode_t mode)
        : path_(std::move(path)), group_(group), mode_(mode) {}

    // Listens at the path, replacing a socket file that nobody listens on. False when it cannot;
    // error() then tells why.
    [[nodiscard]] bool open();
    [[nodiscard]] const std::string& error() const { return error_; }
    [[nodiscard]] bool is_open() const { return static_cast<bool>(listener_); }

    // What poll(2) is to wait for.
    [[nodiscard]] pollfd poll_entry() const;

    // The next client, on a non-blocking descriptor, or none for now. When the process is out of
    // descriptors the socket pauses, and that is logged once until a client is accepted again.
    [[nodiscard]] UniqueFd accept();

    // A socket that pauses waits for no client, or poll(2) would return at once again and again.
    [[nodiscard]] bool is_paused() const { return paused_; }
    void resume() { paused_ = false; }

    // Listens no more, and removes the socket file unless another broker has put its own there.
    void close();

  private:
    bool fail(const std::string& what);
    bool make_way();
    bool listen_there();
    bool open_to_its_group(int listener);

    const std::string path_;
    const std::optional<gid_t> group_;
    const mode_t mode_;
    std::string error_;
    UniqueFd listener_;
    dev_t device_ = 0;  // of the socket file
    ino_t inode_ = 0;
    bool paused_ = false;
    bool failed_ = false;  // since a client was accepted last; logged
};

}  // namespace msgbus

#endif
