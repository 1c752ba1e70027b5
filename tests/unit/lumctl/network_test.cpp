#include "network.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <chrono>

#include "emulator.h"

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr std::chrono::seconds limit{10};

// A TCP port of this machine: listened on, or only taken.
class Port {
  public:
    explicit Port(bool listens) : fd(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd, any, size) == 0 && (!listens || listen(fd, 1) == 0) &&
            getsockname(fd, any, &size) == 0)
            number = ntohs(address.sin_port);
    }
    ~Port() { close(fd); }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    const int fd;
    int number = 0;
};

TEST(LookUp, AnAddressNeedsNoName) {
    const look_up_result found = look_up("192.0.2.7", 80, limit);
    ASSERT_THAT(found.addresses, SizeIs(1));
    EXPECT_EQ(found.addresses[0].text(), "192.0.2.7");
    EXPECT_THAT(found.error, IsEmpty());
}

TEST(LookUp, ANameThatIsNoneGivesTheReason) {
    const look_up_result found = look_up("not a name", 80, limit);
    EXPECT_THAT(found.addresses, IsEmpty());
    EXPECT_THAT(found.error, Not(IsEmpty()));
}

TEST(TryConnect, APortThatIsListenedOnTakesTheConnection) {
    const Port port(true);
    const connect_result result =
        try_connect(look_up("127.0.0.1", port.number, limit).addresses, limit);
    EXPECT_EQ(result.address, "127.0.0.1");
    EXPECT_THAT(result.error, IsEmpty());
}

TEST(TryConnect, AClosedPortRefusesIt) {
    if (emulated())
        GTEST_SKIP() << "an emulator gives SO_ERROR in the numbers of the machine below";
    const Port port(false);
    const connect_result result =
        try_connect(look_up("127.0.0.1", port.number, limit).addresses, limit);
    EXPECT_THAT(result.error, HasSubstr("refused"));
}

TEST(TryConnect, AnAddressThatRefusesIsFollowedByTheNext) {
    const Port closed(false);
    const Port open(true);
    auto addresses = look_up("127.0.0.1", closed.number, limit).addresses;
    addresses.push_back(look_up("127.0.0.1", open.number, limit).addresses.at(0));
    EXPECT_THAT(try_connect(addresses, limit).error, IsEmpty());
}

}  // namespace
