// What the tests of the bus client stand on: a context in the hands of the test, and the real
// broker or one that does what the test wants.
#ifndef TESTS_MSGBUS_FIXTURE_H
#define TESTS_MSGBUS_FIXTURE_H

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "bus_test_support.h"
#include "msgbus.h"
#include "owned.h"
#include "syslog_spy.h"

// A wait that the behaviour under test ends; longer than any test may take.
constexpr int kForever = 3600;

using Message = std::unique_ptr<message_s, free_deleter>;

inline msgbus_ptr join(int module) {
    constexpr std::uint8_t options[] = {0xFE, 0x00};
    return msgbus_ptr{msgbus_init(module, options, sizeof options)};
}

inline Message poll_once(const msgbus_ptr& ctx) {
    return Message{msgbus_poll_no_wait(ctx.get())};
}

// Polls until a frame is there or the connection is gone.
inline Message poll_frame(const msgbus_ptr& ctx) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds{kPatienceMs};
    Message frame;
    while (!(frame = poll_once(ctx)) && msgbus_get_module_loop(ctx.get()) != 0 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    return frame;
}

inline std::string text_of(const Message& frame) {
    return frame ? std::string(reinterpret_cast<const char*>(frame->payload), frame->header.len)
                 : "(no frame)";
}

inline void send(const msgbus_ptr& ctx, int dst, const std::string& text) {
    msgbus_send(ctx.get(), text.data(), static_cast<std::uint8_t>(dst), text.size());
}

inline cfgtree_ptr wait_answer(const msgbus_ptr& ctx, int timeout = kForever,
                               const char* command = "done") {
    return cfgtree_ptr{msgbus_wait_answer(ctx.get(), command, "Error: no answer\n", timeout)};
}

inline std::string value_of(const cfgtree_ptr& answer) {
    const char* value = cfgtree_get_param(answer.get(), "value");
    return value ? value : "(none)";
}

inline std::string done(const std::string& value) {
    return R"({"command":"done","value":")" + value + "\"}";
}

inline auto logged(const std::string& text) {
    return testing::Contains(testing::Field(&SyslogLine::text, testing::HasSubstr(text)));
}

class Msgbus : public testing::Test {
  protected:
    Msgbus() { take_syslog(); }

    // A reason not to join that was logged before is logged again after this.
    void join_once(int module) const {
        const std::string elsewhere = folder / "elsewhere";
        const RunningBroker broker{elsewhere};
        setenv("MSGBUS_SOCKET", elsewhere.c_str(), 1);
        EXPECT_TRUE(join(module));
        setenv("MSGBUS_SOCKET", path.c_str(), 1);
    }

    TemporaryFolder folder;
    const std::string path = folder / "bus";
    ScopedEnvironment environment{"MSGBUS_SOCKET", path};
};

// On the real broker.
class MsgbusOnBroker : public Msgbus {
  protected:
    MsgbusOnBroker() { start_broker(); }
    void start_broker() { broker = std::make_unique<RunningBroker>(path); }

    std::unique_ptr<RunningBroker> broker;
};

// A broker that does what the test wants.
class FakeBroker {
  public:
    explicit FakeBroker(const std::string& path)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd_, 5) != 0)
            throw std::runtime_error{"fake broker"};
    }
    ~FakeBroker() { close(fd_); }
    FakeBroker(const FakeBroker&) = delete;
    FakeBroker& operator=(const FakeBroker&) = delete;

    RawPeer accept() const { return RawPeer{::accept(fd_, nullptr, nullptr)}; }

    // Takes one client in; `stream` follows its attach answer.
    RawPeer admit(const std::string& stream = {}) const {
        RawPeer peer = accept();
        const std::optional<Frame> attach = peer.read();
        EXPECT_TRUE(attach && attach->header.type == MSGBUS_ATTACH && attach->header.len == 0);
        const int module = attach ? attach->header.src : 0;
        EXPECT_TRUE(peer.write(bytes_of(make_frame(MSGBUS_ATTACH, module, module)) + stream));
        return peer;
    }

  private:
    int fd_;
};

class MsgbusOnFake : public Msgbus {
  protected:
    // Joins the fake bus; `peer` is then the broker's end.
    msgbus_ptr join_fake(const std::string& stream = {}) {
        std::future<RawPeer> admitted =
            std::async(std::launch::async, [&] { return fake.admit(stream); });
        msgbus_ptr ctx = join(28);
        peer.emplace(admitted.get());
        return ctx;
    }
    msgbus_ptr start_fake() {
        msgbus_ptr ctx = join_fake();
        msgbus_peer_start(ctx.get());
        return ctx;
    }
    // The broker's end answers the client's next request with that stream of frames.
    std::thread answer_with(std::function<std::string(std::uint32_t seq)> stream) {
        return std::thread{[this, stream = std::move(stream)] {
            const std::optional<Frame> request = peer->read();
            ASSERT_TRUE(request);
            EXPECT_TRUE(peer->write(stream(request->header.seq)));
        }};
    }
    static std::string data(std::uint32_t seq, const std::string& payload) {
        return bytes_of(make_frame(MSGBUS_DATA, 1, 28, seq, payload));
    }
    static std::string undeliverable(std::uint32_t seq) {
        return bytes_of(make_frame(MSGBUS_UNDELIVERABLE, 1, 28, seq));
    }
    void expect_init_fails_after(const std::string& answer, const std::string& reason) {
        join_once(28);
        std::thread broker{[&] {
            RawPeer client = fake.accept();
            EXPECT_TRUE(client.read());
            EXPECT_TRUE(client.write(answer));
        }};
        EXPECT_EQ(join(28), nullptr);
        broker.join();
        EXPECT_THAT(take_syslog(), logged(reason));
    }
    void expect_ends_connection(const std::string& bytes) {
        const msgbus_ptr ctx = start_fake();
        ASSERT_TRUE(peer->write(bytes));
        EXPECT_EQ(poll_frame(ctx), nullptr);
        EXPECT_EQ(msgbus_get_module_loop(ctx.get()), 0);
        EXPECT_THAT(take_syslog(), logged("malformed frame"));
        EXPECT_TRUE(peer->ended());
    }

    FakeBroker fake{path};
    std::optional<RawPeer> peer;
};

#endif
