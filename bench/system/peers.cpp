#include "peers.h"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

#include "msgbus.h"

namespace {

message_header_s make_header(msgbus_frame_type type, std::uint8_t dst, std::size_t length) {
    message_header_s head{};
    head.magic = MSGBUS_MAGIC;
    head.ver = MSGBUS_VERSION;
    head.dst = dst;
    head.len = static_cast<std::uint32_t>(length);
    head.seq = 1;
    head.type = static_cast<std::uint8_t>(type);
    return head;
}

std::string bytes_of(const message_header_s& head) {
    return {reinterpret_cast<const char*>(&head), sizeof head};
}

std::string_view receive_data(Stream& stream) {
    message_header_s head{};
    std::memcpy(&head, stream.read(sizeof head).data(), sizeof head);
    if (head.type != MSGBUS_DATA)
        fail("the bus cannot deliver");
    return stream.read(head.len);
}

class BusModule : public Peer {
  public:
    BusModule(const std::string& path, int module, int partner)
        : stream_(Stream::connect_unix(path)), partner_(static_cast<std::uint8_t>(partner)) {
        message_header_s attach = make_header(MSGBUS_ATTACH, 0, 0);
        attach.src = static_cast<std::uint8_t>(module);
        stream_.write(bytes_of(attach), {});
        static_cast<void>(stream_.read(sizeof attach));
    }

    void send(std::string_view message) override {
        stream_.write(bytes_of(make_header(MSGBUS_DATA, partner_, message.size())), message);
    }

    std::string_view receive() override { return receive_data(stream_); }

  private:
    Stream stream_;
    const std::uint8_t partner_;
};

// Takes the agent's connection as the broker would, and adds to its event descriptor likewise.
class BusNeighbour : public Peer {
  public:
    BusNeighbour(int listener, int module, int agent)
        : stream_(Stream::accept_unix(listener)),
          event_(stream_.read_with_descriptor(sizeof(message_header_s))),
          module_(static_cast<std::uint8_t>(module)),
          agent_(static_cast<std::uint8_t>(agent)) {
        put(make_header(MSGBUS_ATTACH, agent_, 0), {});
    }

    void send(std::string_view message) override {
        message_header_s head = make_header(MSGBUS_DATA, agent_, message.size());
        head.src = module_;
        put(head, message);
    }

    std::string_view receive() override { return receive_data(stream_); }

  private:
    void put(const message_header_s& head, std::string_view message) {
        stream_.write(bytes_of(head), message);
        const std::uint64_t one = 1;
        if (write(event_, &one, sizeof one) != sizeof one)
            fail("the agent cannot be woken");
    }

    Stream stream_;
    const int event_;
    const std::uint8_t module_;
    const std::uint8_t agent_;
};

class Service : public Peer {
  public:
    explicit Service(int listener) : stream_(Stream::accept_tcp(listener)) {
        Websocket::accept_handshake(stream_);
    }
    void send(std::string_view message) override { link_.write(Websocket::TEXT, message); }
    std::string_view receive() override { return link_.read(); }

  private:
    Stream stream_;
    Websocket link_{stream_, false};
};

// Bytes of an MQTT connection, wherever they travel.
class Carrier {
  public:
    virtual ~Carrier() = default;
    virtual void write(const std::string& head, std::string_view body) = 0;
    virtual std::string_view read(std::size_t count) = 0;
};

class TcpCarrier : public Carrier {
  public:
    explicit TcpCarrier(int port) : stream_(Stream::connect_tcp(port)) {}
    void write(const std::string& head, std::string_view body) override {
        stream_.write(head, body);
    }
    std::string_view read(std::size_t count) override { return stream_.read(count); }

  private:
    Stream stream_;
};

class WebsocketCarrier : public Carrier {
  public:
    explicit WebsocketCarrier(int port) : stream_(Stream::connect_tcp(port)) {
        Websocket::ask_handshake(stream_, "mqtt");
    }
    void write(const std::string& head, std::string_view body) override {
        packet_.assign(head).append(body);
        link_.write(Websocket::BINARY, packet_);
    }
    std::string_view read(std::size_t count) override {
        if (bytes_.size() - begin_ < count) {
            bytes_.erase(0, begin_);
            begin_ = 0;
            while (bytes_.size() < count)
                bytes_ += link_.read();
        }
        begin_ += count;
        return std::string_view(bytes_).substr(begin_ - count, count);
    }

  private:
    Stream stream_;
    Websocket link_{stream_, true};
    std::string packet_;
    std::string bytes_;
    std::size_t begin_ = 0;
};

class MqttClient : public Peer {
  public:
    MqttClient(std::unique_ptr<Carrier> carrier, const std::string& own, const std::string& others)
        : carrier_(std::move(carrier)), topic_(text(others)) {
        // Protocol name and level 4, clean session, no keep-alive (3.1)
        packet(CONNECT, text("MQTT") + std::string("\x04\x02\x00\x00", 4) + text(own), {});
        static_cast<void>(read_packet());
        packet(SUBSCRIBE, std::string("\x00\x01", 2) + text(own) + std::string(1, '\0'), {});
        static_cast<void>(read_packet());
    }

    void send(std::string_view message) override { packet(PUBLISH, topic_, message); }

    std::string_view receive() override {
        const std::string_view body = read_packet();
        const std::size_t topic = static_cast<std::uint8_t>(body[1]);
        return body.substr(2 + topic);
    }

  private:
    // First bytes of the packets (2.2)
    static constexpr std::uint8_t CONNECT = 0x10;
    static constexpr std::uint8_t PUBLISH = 0x30;
    static constexpr std::uint8_t SUBSCRIBE = 0x82;

    // A short text with its length (1.5.3)
    static std::string text(const std::string& value) {
        return std::string{'\0', static_cast<char>(value.size())} + value;
    }

    void packet(std::uint8_t type, const std::string& variable_header, std::string_view payload) {
        std::string head(1, static_cast<char>(type));
        std::size_t rest = variable_header.size() + payload.size();
        do {
            head.push_back(static_cast<char>(rest % 128 | (rest > 127 ? 128 : 0)));
            rest /= 128;
        } while (rest > 0);
        carrier_->write(head + variable_header, payload);
    }

    std::string_view read_packet() {
        static_cast<void>(carrier_->read(1));
        std::size_t length = 0;
        for (unsigned shift = 0;; shift += 7) {
            const auto byte = static_cast<std::uint8_t>(carrier_->read(1)[0]);
            length |= static_cast<std::size_t>(byte & 127) << shift;
            if (byte < 128)
                return carrier_->read(length);
        }
    }

    const std::unique_ptr<Carrier> carrier_;
    const std::string topic_;
};

constexpr const char* bus_topic = "bus";
constexpr const char* service_topic = "service";

}  // namespace

std::unique_ptr<Peer> make_bus_module(const std::string& socket_path, int module, int partner) {
    return std::make_unique<BusModule>(socket_path, module, partner);
}

std::unique_ptr<Peer> make_bus_neighbour(int listener, int module, int partner) {
    return std::make_unique<BusNeighbour>(listener, module, partner);
}

std::unique_ptr<Peer> make_service(int listener) {
    return std::make_unique<Service>(listener);
}

std::unique_ptr<Peer> make_mqtt_on_tcp(int port) {
    return std::make_unique<MqttClient>(std::make_unique<TcpCarrier>(port), bus_topic,
                                        service_topic);
}

std::unique_ptr<Peer> make_mqtt_on_websocket(int port) {
    return std::make_unique<MqttClient>(std::make_unique<WebsocketCarrier>(port), service_topic,
                                        bus_topic);
}
