// The two ends of a relay: messages go in at one and come out at the other.
#ifndef BENCH_PEERS_H
#define BENCH_PEERS_H

#include <memory>
#include <string>
#include <string_view>

#include "stream.h"

// send() and receive() may each be used by a thread of its own.
class Peer {
  public:
    virtual ~Peer() = default;
    virtual void send(std::string_view message) = 0;
    // Valid until the next.
    [[nodiscard]] virtual std::string_view receive() = 0;
};

// lumd's two sides: a module on the message bus and the websocket service.
std::unique_ptr<Peer> make_bus_module(const std::string& socket_path, int module, int partner);
std::unique_ptr<Peer> make_service(int listener);
// The module whose stream ends at lumd itself, with no broker between: what two modules that know
// each other would have.
std::unique_ptr<Peer> make_bus_neighbour(int listener, int module, int partner);

// An MQTT 3.1.1 broker's two sides, quality of service 0. Each publishes what the other has
// subscribed to.
std::unique_ptr<Peer> make_mqtt_on_tcp(int port);
std::unique_ptr<Peer> make_mqtt_on_websocket(int port);

#endif
