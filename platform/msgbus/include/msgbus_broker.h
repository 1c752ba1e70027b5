// MsgbusBroker forwards frames between the modules attached to one AF_UNIX socket (msgbus.h).
//
// It never blocks on one client and never drops silently: what cannot be delivered, and what a
// module has not taken before its end, is answered with an undeliverable frame. A malformed frame
// ends its connection, never the broker; so does not attaching within 5 seconds. What the policy
// forbids is refused with an undeliverable frame that has a text, and logged.
// One thread runs the broker; stop() may be called from any thread and from a signal handler.
#ifndef PLATFORM_MSGBUS_BROKER_H
#define PLATFORM_MSGBUS_BROKER_H

#include <memory>
#include <string>

#include "msgbus_settings.h"

class MsgbusBroker {
  public:
    // Receivers judge the uid that each frame carries, unless the settings judge before.
    explicit MsgbusBroker(std::string socket_path,
                          MsgbusSettings settings = MsgbusSettings::for_everybody());
    ~MsgbusBroker();
    MsgbusBroker(const MsgbusBroker&) = delete;
    MsgbusBroker& operator=(const MsgbusBroker&) = delete;

    // Listens on the socket path, replacing a socket file that nobody listens on. False, with an
    // error line, when it cannot.
    [[nodiscard]] bool open();

    // Why open() has failed.
    [[nodiscard]] const std::string& error() const;

    // Serves until stop(); then every connection is closed and the socket file removed.
    void run();

    void stop();

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

#endif
