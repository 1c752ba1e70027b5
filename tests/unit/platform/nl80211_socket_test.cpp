// The messages of generic netlink, and a real socket to the family that every kernel has.
#include "nl80211_socket.h"

#include <gmock/gmock.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <cerrno>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint16_t kFamily = 28;
constexpr std::uint32_t kSequence = 7;

// One datagram, message by message.
class Datagram {
  public:
    Datagram& message(std::uint16_t type, std::uint16_t flags,
                      std::span<const std::uint8_t> payload, std::uint32_t sequence = kSequence) {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_HDRLEN + payload.size());
        header.nlmsg_type = type;
        header.nlmsg_flags = flags;
        header.nlmsg_seq = sequence;
        const auto* const begin = reinterpret_cast<const std::uint8_t*>(&header);
        bytes_.insert(bytes_.end(), begin, begin + sizeof header);
        bytes_.insert(bytes_.end(), payload.begin(), payload.end());
        bytes_.resize(NLMSG_ALIGN(bytes_.size()));
        return *this;
    }
    Datagram& told(const nl_request& content, std::uint16_t flags = NLM_F_MULTI,
                   std::uint32_t sequence = kSequence) {
        const std::span<const std::uint8_t> attributes = content.attributes();
        std::vector<std::uint8_t> payload{content.command(), 0, 0, 0};
        payload.insert(payload.end(), attributes.begin(), attributes.end());
        return message(kFamily, flags, payload, sequence);
    }
    Datagram& number(std::uint16_t type, int value, std::uint16_t flags = 0) {
        const auto* const begin = reinterpret_cast<const std::uint8_t*>(&value);
        return message(type, flags, {begin, sizeof value});
    }
    [[nodiscard]] std::vector<std::uint8_t>& bytes() { return bytes_; }

  private:
    std::vector<std::uint8_t> bytes_;
};

class NlAnswer : public testing::Test {
  protected:
    void take(Datagram& datagram) { answer.take(datagram.bytes()); }

    std::vector<int> told;
    const nl_handler handler = [this](std::uint8_t command, const nl_attributes&) {
        told.push_back(command);
    };
    nl_answer answer{kFamily, kSequence, handler};
};

TEST_F(NlAnswer, ADumpEndsWithDone) {
    take(Datagram{}.told(nl_request{34}).told(nl_request{35}));
    EXPECT_FALSE(answer.is_over());
    take(Datagram{}.number(NLMSG_DONE, 0));
    EXPECT_TRUE(answer.is_over());
    EXPECT_EQ(answer.result(), 0);
    EXPECT_THAT(told, ElementsAre(34, 35));
}

TEST_F(NlAnswer, AnAcknowledgementIsSuccess) {
    take(Datagram{}.number(NLMSG_ERROR, 0));
    EXPECT_TRUE(answer.is_over());
    EXPECT_EQ(answer.result(), 0);
}

TEST_F(NlAnswer, ARefusalIsItsErrno) {
    take(Datagram{}.number(NLMSG_ERROR, -EBUSY));
    EXPECT_TRUE(answer.is_over());
    EXPECT_EQ(answer.result(), -EBUSY);
    EXPECT_THAT(answer.reason(), IsEmpty());
}

TEST_F(NlAnswer, ADumpMayEndWithAnError) {
    take(Datagram{}.number(NLMSG_DONE, -ENODEV));
    EXPECT_EQ(answer.result(), -ENODEV);
}

TEST_F(NlAnswer, ADumpThatChangedMeanwhileIsTold) {
    take(Datagram{}.told(nl_request{34}, NLM_F_MULTI | NLM_F_DUMP_INTR).number(NLMSG_DONE, 0));
    EXPECT_EQ(answer.result(), -EINTR);
    EXPECT_THAT(told, ElementsAre(34));
}

TEST_F(NlAnswer, LostMessagesAreTold) {
    take(Datagram{}.message(NLMSG_OVERRUN, 0, {}));
    EXPECT_EQ(answer.result(), -ENOBUFS);
}

TEST_F(NlAnswer, LateMessagesOfAnotherCommandAreLeftOut) {
    take(Datagram{}
             .told(nl_request{34}, NLM_F_MULTI, kSequence - 1)
             .message(NLMSG_DONE, 0, {}, kSequence - 1));
    EXPECT_FALSE(answer.is_over());
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(NlAnswer, TheKernelsWordsAreKept) {
    std::vector<std::uint8_t> payload(sizeof(nlmsgerr));
    const int error = -EINVAL;
    std::memcpy(payload.data(), &error, sizeof error);
    nl_request words{0};
    words.put_text(NLMSGERR_ATTR_MSG, "channel is disabled");
    const std::span<const std::uint8_t> attributes = words.attributes();
    payload.insert(payload.end(), attributes.begin(), attributes.end());
    take(Datagram{}.message(NLMSG_ERROR, NLM_F_ACK_TLVS | NLM_F_CAPPED, payload));
    EXPECT_EQ(answer.result(), -EINVAL);
    EXPECT_EQ(answer.reason(), "channel is disabled");
}

TEST_F(NlAnswer, EveryCutOfADatagramIsHarmless) {
    Datagram whole;
    whole.told(nl_request{34}.put_text(1, "wlan0").put_u32(2, 3)).number(NLMSG_ERROR, -EBUSY);
    for (std::size_t size = 0; size < whole.bytes().size(); ++size) {
        const std::vector<std::uint8_t> cut{whole.bytes().begin(),
                                            whole.bytes().begin() + static_cast<long>(size)};
        nl_answer{kFamily, kSequence, handler}.take(cut);
    }
    SUCCEED();
}

TEST(NlRequest, AttributesReadBackAsTheyWerePut) {
    nl_request request{1};
    const std::uint8_t ssid[] = {'a', 0, 'b'};
    const std::uint32_t channels[] = {2412, 2437};
    request.put_flag(1).put_u8(2, 200).put_u16(3, 60000).put_u32(4, 4000000000U);
    request.put_data(5, ssid).put_text(6, "wlan0").put_list(7, channels);
    ASSERT_TRUE(request.is_whole());
    const nl_attributes read{request.attributes()};
    EXPECT_TRUE(read.has(1));
    EXPECT_FALSE(read.has(8));
    EXPECT_EQ(read.get<std::uint8_t>(2), 200);
    EXPECT_EQ(read.get<std::uint16_t>(3), 60000);
    EXPECT_EQ(read.get<std::uint32_t>(4), 4000000000U);
    EXPECT_THAT(read.data(5), ElementsAre('a', 0, 'b'));
    EXPECT_EQ(read.text(6), "wlan0");
    EXPECT_EQ(read.nested(7).get<std::uint32_t>(2), 2437U);
    EXPECT_EQ(read.get<std::uint32_t>(2), std::nullopt) << "shorter than the answer";
}

TEST(NlRequest, MoreThanAMessageHoldsIsNotWhole) {
    nl_request request{1};
    const std::vector<std::uint8_t> much(60000);
    request.put_data(1, much);
    EXPECT_FALSE(request.is_whole());
    nl80211_socket socket{nl80211_socket::default_wait, "nlctrl"};
    EXPECT_EQ(socket.exchange(request), -EMSGSIZE);
}

// The controller of generic netlink is a family itself, and there in every kernel.
TEST(Nl80211Socket, ReadsADumpOfTheKernel) {
    nl80211_socket socket{nl80211_socket::default_wait, "nlctrl"};
    nl_request request{CTRL_CMD_GETFAMILY, nl_request::dump};
    for (int round = 0; round < 2; ++round) {
        std::vector<std::string> families;
        ASSERT_EQ(socket.exchange(request,
                                  [&](std::uint8_t, const nl_attributes& family) {
                                      families.emplace_back(family.text(CTRL_ATTR_FAMILY_NAME));
                                  }),
                  0);
        EXPECT_THAT(families, Contains("nlctrl"));
    }
}

TEST(Nl80211Socket, TellsWhatTheKernelRefuses) {
    nl80211_socket socket{nl80211_socket::default_wait, "nlctrl"};
    nl_request request{CTRL_CMD_GETFAMILY};
    request.put_text(CTRL_ATTR_FAMILY_NAME, "no-such");
    EXPECT_EQ(socket.exchange(request), -ENOENT);
}

TEST(Nl80211Socket, AFamilyThatIsMissingIsNoDevice) {
    nl80211_socket socket{nl80211_socket::default_wait, "no-such"};
    EXPECT_EQ(socket.exchange(nl_request{1}), -ENODEV);
    EXPECT_EQ(socket.subscribe("scan"), -ENODEV);
    EXPECT_EQ(socket.fd(), -1);
}

TEST(Nl80211Socket, KnowsTheGroupsOfEvents) {
    nl80211_socket socket{nl80211_socket::default_wait, "nlctrl"};
    EXPECT_EQ(socket.subscribe("notify"), 0);
    EXPECT_EQ(socket.subscribe("no-such"), -ENOENT);
    EXPECT_EQ(socket.read_events([](std::uint8_t, const nl_attributes&) {}), 0);
}

}  // namespace
