// FakeNl80211: a kernel that answers from recordings of a real one. A recording is the netlink
// messages that one command got, end to end.
#ifndef TESTS_FAKE_NL80211_H
#define TESTS_FAKE_NL80211_H

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "nl80211_transport.h"

class FakeNl80211 : public nl80211_transport {
  public:
    using Bytes = std::vector<std::uint8_t>;

    // One command as it was asked for.
    struct Call {
        std::uint8_t command = 0;
        Bytes attributes;

        [[nodiscard]] nl_attributes read() const { return nl_attributes{attributes}; }
    };

    static Bytes recording(const std::string& name) {
        std::ifstream file{std::string{NL80211_RECORDINGS "/"} + name + ".bin", std::ios::binary};
        if (!file)
            throw std::runtime_error("no recording " + name);
        return {std::istreambuf_iterator<char>{file}, {}};
    }

    using nl80211_transport::exchange;
    int exchange(const nl_request& request, const nl_handler& handler) override {
        const auto attributes = request.attributes();
        calls.push_back({request.command(), {attributes.begin(), attributes.end()}});
        std::deque<int>& planned = results[request.command()];
        const auto kept = answers.find(request.command());
        if (kept != answers.end())
            play(kept->second, handler);
        if (planned.empty())
            return 0;
        const int result = planned.front();
        planned.pop_front();
        return result;
    }
    int subscribe(const char*) override {
        ++subscriptions;
        subscribed_ = subscription == 0;
        return subscription;
    }
    int read_events(const nl_handler& handler) override {
        const Bytes datagram = std::move(events);
        events.clear();
        if (!datagram.empty())
            nl_read_events(header_of(datagram).nlmsg_type, datagram, handler);
        return events_result;
    }
    [[nodiscard]] int fd() const override { return subscribed_ ? descriptor : -1; }
    [[nodiscard]] const std::string& reason() const override { return reason_; }

    [[nodiscard]] std::vector<Call> calls_of(std::uint8_t command) const {
        std::vector<Call> result;
        for (const Call& call : calls)
            if (call.command == command)
                result.push_back(call);
        return result;
    }

    // One more message, of the attributes of `record`, in front of a recording.
    void put_before(int command, const nl_request& record) {
        Bytes& answer = answers.at(command);
        const auto attributes = record.attributes();
        nlmsghdr header = header_of(answer);
        header.nlmsg_len =
            static_cast<std::uint32_t>(NLMSG_HDRLEN + GENL_HDRLEN + attributes.size());
        Bytes message(NLMSG_HDRLEN + GENL_HDRLEN);
        std::memcpy(message.data(), &header, sizeof header);
        message[NLMSG_HDRLEN] = record.command();
        message.insert(message.end(), attributes.begin(), attributes.end());
        answer.insert(answer.begin(), message.begin(), message.end());
    }

    std::map<int, Bytes> answers;            // recordings by command
    std::map<int, std::deque<int>> results;  // of the next calls of a command; then 0
    std::vector<Call> calls;
    Bytes events;
    int events_result = 0;
    int subscription = 0;   // the result
    int subscriptions = 0;  // asked for
    int descriptor = -1;

  private:
    static nlmsghdr header_of(const Bytes& datagram) {
        nlmsghdr header{};
        if (datagram.size() >= sizeof header)
            std::memcpy(&header, datagram.data(), sizeof header);
        return header;
    }
    static void play(const Bytes& datagram, const nl_handler& handler) {
        const nlmsghdr first = header_of(datagram);
        nl_answer{first.nlmsg_type, first.nlmsg_seq, handler}.take(datagram);
    }

    bool subscribed_ = false;
    std::string reason_;
};

#endif
