// TestBus: a message bus of the test's own, with daemons that answer as the test wants.
//
// The daemons speak the wire format by themselves instead of through the bus client, so that a
// fault of the client cannot hide behind its own mirror image.
#ifndef TESTS_TEST_BUS_H
#define TESTS_TEST_BUS_H

#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ipc_module.h"
#include "msgbus.h"
#include "msgbus_broker.h"
#include "temporary_folder.h"

namespace test_bus {

inline constexpr std::chrono::seconds patience{20};  // bound of every wait

// One connection to the broker.
class Connection {
  public:
    struct Frame {
        message_header_s header;
        std::string payload;
    };

    Connection(const std::string& socket_path, ipc_module_t module)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
        message_header_s attach = header(MSGBUS_ATTACH, 0);
        attach.src = static_cast<std::uint8_t>(module);
        attached_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                    write(attach, {}) && read().has_value();
    }
    ~Connection() { close(fd_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // False when the broker refused the module id, as it does while another connection holds it.
    [[nodiscard]] bool attached() const { return attached_; }

    bool send(int to, const std::string& text, std::uint32_t seq) {
        message_header_s data = header(MSGBUS_DATA, static_cast<std::uint8_t>(to));
        data.seq = seq;
        data.len = static_cast<std::uint32_t>(text.size());
        return write(data, text);
    }

    // Bounds each later read().
    void limit_reads(std::chrono::milliseconds limit) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
        const std::chrono::microseconds rest = limit - seconds;
        timeval value{};
        value.tv_sec = static_cast<decltype(value.tv_sec)>(seconds.count());
        value.tv_usec = static_cast<decltype(value.tv_usec)>(rest.count());
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
    }

    // The next frame; empty at the connection's end and when none came in time.
    std::optional<Frame> read() {
        Frame frame{};
        if (!read_all(&frame.header, sizeof frame.header) || frame.header.len > MSGBUS_MAX_PAYLOAD)
            return std::nullopt;
        frame.payload.resize(frame.header.len);
        if (!read_all(frame.payload.data(), frame.payload.size()))
            return std::nullopt;
        return frame;
    }

    // Ends a read() that waits on another thread.
    void end() { shutdown(fd_, SHUT_RDWR); }

  private:
    static message_header_s header(msgbus_frame_type type, std::uint8_t to) {
        message_header_s result{};
        result.magic = MSGBUS_MAGIC;
        result.ver = MSGBUS_VERSION;
        result.dst = to;
        result.seq = 1;
        result.type = static_cast<std::uint8_t>(type);
        return result;
    }

    bool write(const message_header_s& head, const std::string& payload) {
        std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
        bytes += payload;
        const std::lock_guard lock{write_mutex_};
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

    bool read_all(void* out, std::size_t len) {
        return len == 0 || recv(fd_, out, len, MSG_WAITALL) == static_cast<ssize_t>(len);
    }

    int fd_;
    bool attached_ = false;
    std::mutex write_mutex_;
};

// Text of a string member, of any other member its JSON; empty when the object has none.
inline std::optional<std::string> member(const std::string& json, const char* name) {
    const std::unique_ptr<json_object, int (*)(json_object*)> object{
        json_tokener_parse(json.c_str()), json_object_put};
    json_object* found = nullptr;
    if (!json_object_object_get_ex(object.get(), name, &found))
        return std::nullopt;
    if (json_object_is_type(found, json_type_string))
        return json_object_get_string(found);
    return json_object_to_json_string_ext(found, JSON_C_TO_STRING_PLAIN);
}

// A JSON string with quotes and escapes.
inline std::string quoted(const std::string& text) {
    const std::unique_ptr<json_object, int (*)(json_object*)> string{
        json_object_new_string_len(text.data(), static_cast<int>(text.size())), json_object_put};
    return json_object_to_json_string_ext(string.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace test_bus

// The broker and the daemons each run on a thread of their own. While a TestBus lives,
// MSGBUS_SOCKET leads to it; one at a time.
class TestBus {
  public:
    // Gets a request's JSON text and returns the answer's; nullopt stays silent. Runs on the
    // daemon's thread; as long as it runs, later requests to that daemon wait.
    using Handler = std::function<std::optional<std::string>(const std::string& request)>;

    TestBus() {
        start_broker();
        setenv("MSGBUS_SOCKET", socket_.c_str(), 1);
    }
    ~TestBus() {
        stop_broker();
        unsetenv("MSGBUS_SOCKET");
    }
    TestBus(const TestBus&) = delete;
    TestBus& operator=(const TestBus&) = delete;

    [[nodiscard]] const std::string& socket_path() const { return socket_; }

    // Another broker takes the place of the present one; every connection is lost, the daemons are
    // gone.
    void restart() {
        stop_broker();
        start_broker();
    }

    // Makes a daemon of that module id, in place of an earlier one; it is on the bus on return.
    void serve(ipc_module_t module, Handler handler) {
        drop(module);
        auto daemon = std::make_unique<Daemon>(
            attach(module), std::move(handler),
            [this, module](const std::string& text) { note(module, text); });
        const std::lock_guard lock{daemons_mutex_};
        daemons_.emplace(module, std::move(daemon));
    }

    // Ends the daemon.
    void drop(ipc_module_t module) {
        std::unique_lock lock{daemons_mutex_};
        const auto ended = daemons_.extract(module);
        lock.unlock();  // the daemon's handler may still be in send()
    }
    void drop_all() {
        std::unique_lock lock{daemons_mutex_};
        const auto ended = std::exchange(daemons_, {});
        lock.unlock();  // the same
    }

    // The same, and on return the broker knows that the module is gone.
    void stop_serving(ipc_module_t module) {
        drop(module);
        const std::unique_ptr<test_bus::Connection> probe = attach(probe_module);
        probe->limit_reads(std::chrono::milliseconds{20});
        const auto deadline = std::chrono::steady_clock::now() + test_bus::patience;
        while (std::chrono::steady_clock::now() < deadline) {
            probe->send(module, "", 1);
            const std::optional<test_bus::Connection::Frame> answer = probe->read();
            if (answer && answer->header.type == MSGBUS_UNDELIVERABLE)
                return;
        }
        throw std::runtime_error("the broker keeps module " + std::to_string(module));
    }

    // Sends a message in the daemon's name that nobody asked for. Handlers may call it.
    void send(ipc_module_t from, ipc_module_t to, const std::string& text) {
        const std::lock_guard lock{daemons_mutex_};
        if (const auto daemon = daemons_.find(from); daemon != daemons_.end())
            daemon->second->connection().send(to, text, ++unsolicited_);
    }

    // All texts that have reached the module so far.
    [[nodiscard]] std::vector<std::string> requests(ipc_module_t module) const {
        const std::lock_guard lock{mutex_};
        const auto found = requests_.find(module);
        return found == requests_.end() ? std::vector<std::string>{} : found->second;
    }

    // The same as soon as they are `count` or more; after a bounded wait, what there is.
    [[nodiscard]] std::vector<std::string> wait_requests(ipc_module_t module,
                                                         std::size_t count) const {
        std::unique_lock lock{mutex_};
        arrived_.wait_for(lock, test_bus::patience, [&] {
            const auto found = requests_.find(module);
            return found != requests_.end() && found->second.size() >= count;
        });
        const auto found = requests_.find(module);
        return found == requests_.end() ? std::vector<std::string>{} : found->second;
    }

    void forget_requests() {
        const std::lock_guard lock{mutex_};
        requests_.clear();
    }

  private:
    static constexpr ipc_module_t probe_module = static_cast<ipc_module_t>(SIZEMOD - 1);

    class Daemon {
      public:
        Daemon(std::unique_ptr<test_bus::Connection> connection, Handler handler,
               std::function<void(const std::string&)> note)
            : connection_(std::move(connection)),
              thread_([this, handler = std::move(handler), note = std::move(note)] {
                  serve(handler, note);
              }) {}
        ~Daemon() {
            connection_->end();
            thread_.join();
        }
        Daemon(const Daemon&) = delete;
        Daemon& operator=(const Daemon&) = delete;

        test_bus::Connection& connection() { return *connection_; }

      private:
        void serve(const Handler& handler, const std::function<void(const std::string&)>& note) {
            while (const std::optional<test_bus::Connection::Frame> frame = connection_->read()) {
                if (frame->header.type != MSGBUS_DATA)
                    continue;
                note(frame->payload);
                if (const std::optional<std::string> answer = handler(frame->payload))
                    connection_->send(frame->header.src, *answer, frame->header.seq);
            }
        }

        std::unique_ptr<test_bus::Connection> connection_;
        std::thread thread_;
    };

    void start_broker() {
        broker_ = std::make_unique<MsgbusBroker>(socket_);
        if (!broker_->open())
            throw std::runtime_error("no broker at " + socket_);
        runner_ = std::thread([this] { broker_->run(); });
    }
    void stop_broker() {
        drop_all();
        broker_->stop();
        runner_.join();
    }

    // The broker may not have noticed yet that an earlier holder of the id has gone.
    std::unique_ptr<test_bus::Connection> attach(ipc_module_t module) const {
        const auto deadline = std::chrono::steady_clock::now() + test_bus::patience;
        while (std::chrono::steady_clock::now() < deadline) {
            auto connection = std::make_unique<test_bus::Connection>(socket_, module);
            if (connection->attached())
                return connection;
            std::this_thread::yield();
        }
        throw std::runtime_error("the broker refuses module " + std::to_string(module));
    }

    void note(ipc_module_t module, const std::string& text) {
        const std::lock_guard lock{mutex_};
        requests_[module].push_back(text);
        arrived_.notify_all();
    }

    const TemporaryFolder folder_;
    const std::string socket_ = folder_ / "bus";
    std::unique_ptr<MsgbusBroker> broker_;
    std::thread runner_;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::map<ipc_module_t, std::vector<std::string>> requests_;
    std::mutex daemons_mutex_;
    std::uint32_t unsolicited_ = 1'000'000;  // message numbers that no request bears
    std::map<ipc_module_t, std::unique_ptr<Daemon>> daemons_;
};

// The configuration store: values by path. A path without a value is answered without "value".
class FakeVaultd {
  public:
    explicit FakeVaultd(TestBus& bus) : bus_(bus) { start(); }
    ~FakeVaultd() { bus_.drop(VAULTDMOD); }
    FakeVaultd(const FakeVaultd&) = delete;
    FakeVaultd& operator=(const FakeVaultd&) = delete;

    void start() {
        bus_.serve(VAULTDMOD, [this](const std::string& request) { return answer(request); });
    }
    void stop() { bus_.stop_serving(VAULTDMOD); }

    // `json` is the value's JSON text, so that a string carries its quotes.
    void set_json(const std::string& path, const std::string& json) {
        const std::lock_guard lock{mutex_};
        values_[path] = json;
    }
    void set(const std::string& path, const std::string& text) {
        set_json(path, test_bus::quoted(text));
    }
    void erase(const std::string& path) {
        const std::lock_guard lock{mutex_};
        values_.erase(path);
    }
    void set_silent(bool silent) {
        const std::lock_guard lock{mutex_};
        silent_ = silent;
    }
    // Called on the daemon's thread before a request is answered.
    void on_request(std::function<void(const std::string& path)> hook) {
        const std::lock_guard lock{mutex_};
        hook_ = std::move(hook);
    }

    // Paths asked for so far, in order.
    [[nodiscard]] std::vector<std::string> paths() const {
        std::vector<std::string> result;
        for (const std::string& request : bus_.requests(VAULTDMOD))
            result.push_back(test_bus::member(request, "path").value_or(request));
        return result;
    }

  private:
    std::optional<std::string> answer(const std::string& request) {
        const std::string path = test_bus::member(request, "path").value_or("");
        std::unique_lock lock{mutex_};
        const std::function<void(const std::string&)> hook = hook_;
        lock.unlock();
        if (hook)
            hook(path);
        lock.lock();
        if (silent_)
            return std::nullopt;
        const auto found = values_.find(path);
        if (found == values_.end())
            return R"({"command":"get-response"})";
        return R"({"command":"get-response","value":)" + found->second + "}";
    }

    TestBus& bus_;
    std::mutex mutex_;
    std::map<std::string, std::string> values_;
    bool silent_ = false;
    std::function<void(const std::string&)> hook_;
};

// The network manager: answers every command X with "X-response".
class FakeHubd {
  public:
    enum Mood {
        CONSENTS,
        REFUSES,                 // "status": "error" with a "reason"
        REFUSES_WITHOUT_REASON,  // "status": "error" alone
        TALKS_GARBAGE,           // no JSON at all
        STAYS_SILENT
    };

    explicit FakeHubd(TestBus& bus, Mood mood = CONSENTS) : bus_(bus), mood_(mood) { start(); }
    ~FakeHubd() { bus_.drop(HUBDMOD); }
    FakeHubd(const FakeHubd&) = delete;
    FakeHubd& operator=(const FakeHubd&) = delete;

    static constexpr const char* reason = "radio is busy";

    void start() {
        bus_.serve(HUBDMOD, [this](const std::string& request) { return answer(request); });
    }
    void stop() { bus_.stop_serving(HUBDMOD); }

    void set_mood(Mood mood) {
        const std::lock_guard lock{mutex_};
        mood_ = mood;
    }

    [[nodiscard]] std::vector<std::string> requests() const { return bus_.requests(HUBDMOD); }
    [[nodiscard]] std::vector<std::string> wait_requests(std::size_t count) const {
        return bus_.wait_requests(HUBDMOD, count);
    }

  private:
    std::optional<std::string> answer(const std::string& request) {
        const std::string head = R"({"command":")" +
                                 test_bus::member(request, "command").value_or("") +
                                 R"(-response","status":)";
        const std::lock_guard lock{mutex_};
        switch (mood_) {
            case CONSENTS:
                return head + R"("ok"})";
            case REFUSES:
                return head + R"("error","reason":")" + reason + R"("})";
            case REFUSES_WITHOUT_REASON:
                return head + R"("error"})";
            case TALKS_GARBAGE:
                return "}garbage{";
            case STAYS_SILENT:
                break;
        }
        return std::nullopt;
    }

    TestBus& bus_;
    std::mutex mutex_;
    Mood mood_;
};

#endif
