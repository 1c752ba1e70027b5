// What clients do to the broker: steps of the input, one before each round of the broker's loop.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "clock.h"
#include "input.h"
#include "msgbus.h"
#include "msgbus_broker.h"

namespace {

constexpr std::size_t most_clients = 6;

sockaddr_un socket_address() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/tmp/lumd-fuzz-" + std::to_string(getpid()) + ".sock";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

const sockaddr_un broker_address = socket_address();

// A client's end; none until it connects.
class Client {
  public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { leave(); }

    void join() {
        leave();
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (connect(fd_, reinterpret_cast<const sockaddr*>(&broker_address),
                    sizeof broker_address) != 0)
            leave();
    }
    void leave() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }
    void send(std::string_view bytes) const {
        ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    void send_frame(std::uint8_t type, std::uint8_t src, std::uint8_t dst,
                    std::uint32_t len) const {
        const message_header_s header{MSGBUS_MAGIC, MSGBUS_VERSION, src, dst, len, 1, 0, type};
        send({reinterpret_cast<const char*>(&header), sizeof header});
    }
    // The attach frame with a descriptor that the broker is to add to, which need not be one of
    // the kind that it expects.
    void attach_with(int event, std::uint8_t module) const;
    void read_all() const {
        std::array<char, 4096> bytes;
        while (read(fd_, bytes.data(), bytes.size()) > 0) {
        }
    }

  private:
    int fd_ = -1;
};

void Client::attach_with(int event, std::uint8_t module) const {
    message_header_s header{MSGBUS_MAGIC, MSGBUS_VERSION, module, 0, 0, 1, 0, MSGBUS_ATTACH};
    iovec part{&header, sizeof header};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof event)> space{};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = space.data();
    message.msg_controllen = space.size();
    cmsghdr* const control = CMSG_FIRSTHDR(&message);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof event);
    std::memcpy(CMSG_DATA(control), &event, sizeof event);
    sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// An input, its clients and the broker that it is about.
class Scene {
  public:
    Scene(MsgbusBroker& broker, fuzz::Reader input) : broker_(broker), input_(input) {}

    // What happens before a round of the broker.
    void step() {
        if (!input_.empty())
            act(clients_[input_.byte() % most_clients]);
        else if (settling_rounds_-- == 0)
            broker_.stop();
    }

  private:
    void act(Client& client);
    void attach_with_descriptor(const Client& client);

    MsgbusBroker& broker_;
    fuzz::Reader input_;
    std::array<Client, most_clients> clients_;
    int settling_rounds_ = 3;
};

void Scene::attach_with_descriptor(const Client& client) {
    const std::uint8_t module = input_.byte();
    const int event = module % 2 == 0 ? eventfd(0, EFD_CLOEXEC) : open("/dev/null", O_RDONLY);
    client.attach_with(event, module);
    close(event);
}

void Scene::act(Client& client) {
    switch (input_.byte() % 10) {
        case 0:
            client.join();
            break;
        case 1:
            client.send_frame(MSGBUS_ATTACH, input_.byte(), 0, 0);
            break;
        case 2:
            client.send_frame(MSGBUS_ATTACH, 0, MSGBUS_MONITOR, 0);
            break;
        case 3:
            attach_with_descriptor(client);
            break;
        case 4: {
            const std::uint8_t dst = input_.byte();
            const std::string_view payload = input_.take(input_.byte());
            client.send_frame(MSGBUS_DATA, 0, dst, static_cast<std::uint32_t>(payload.size()));
            client.send(payload);
            break;
        }
        case 5:  // the head of a frame whose payload may come later
            client.send_frame(MSGBUS_DATA, 0, input_.byte(), input_.word());
            break;
        case 6:
            client.send(input_.take(input_.byte()));
            break;
        case 7:
            client.read_all();
            break;
        case 8:
            client.leave();
            break;
        default:
            fuzz::advance_clock(input_.byte());
            break;
    }
}

Scene* scene = nullptr;  // while a broker runs

}  // namespace

// The broker waits at the beginning of a round with the descriptors of its own two and all clients;
// its questions about one descriptor do not wait.
extern "C" int poll(pollfd* descriptors, nfds_t count, int) {
    if (count > 1)
        scene->step();
    timespec none{};
    return static_cast<int>(syscall(SYS_ppoll, descriptors, count, &none, nullptr, 0));
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    MsgbusBroker broker{broker_address.sun_path};
    fuzz::require(broker.open());
    Scene playing{broker, fuzz::Reader{fuzz::as_text(data, size)}};
    scene = &playing;
    broker.run();
    scene = nullptr;
    return 0;
}
