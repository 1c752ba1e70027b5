#include "link_cause.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "websock_worker.h"

namespace {

class LinkCause : public testing::Test {
  protected:
    LinkCause() { cause.begin(); }

    void see(lws_callback_reasons reason, const std::string& in = "") {
        cause.see(nullptr, reason, in.data(), in.size());
    }
    void see_error(const std::string& reported) {
        see(LWS_CALLBACK_CLIENT_CONNECTION_ERROR, reported);
    }

    static void hear(const std::string& line) { link_cause::hear(line.c_str()); }

    link_cause cause{"sub"};
};

// The library tells the machine's number of an error (errno(3)).
std::string failed(int error) {
    return "conn fail: " + std::to_string(error);
}

struct reported_cause {
    std::string reported;
    const char* text;
};

class ReportedCause : public LinkCause, public testing::WithParamInterface<reported_cause> {};

TEST_P(ReportedCause, IsTold) {
    see_error(GetParam().reported);
    EXPECT_EQ(cause.text(), GetParam().text);
}

// As libwebsockets 4.1 and 4.3 say it.
INSTANTIATE_TEST_SUITE_P(
    Texts, ReportedCause,
    testing::Values(reported_cause{failed(ECONNREFUSED), "the connection is refused"},
                    reported_cause{failed(ENETUNREACH), "no route to the host"},
                    reported_cause{failed(EHOSTUNREACH), "no route to the host"},
                    reported_cause{failed(ETIMEDOUT), "time-out: the host does not answer"},
                    reported_cause{failed(EACCES), "Permission denied"},
                    reported_cause{"Unable to connect", "time-out: the host does not answer"},
                    reported_cause{"Timed out waiting server reply", "time-out in the handshake"},
                    reported_cause{"DNS NXDOMAIN", "the name does not resolve"},
                    reported_cause{"Closed before conn", "the name does not resolve"},
                    reported_cause{"read failed", "the connection broke off in the handshake"},
                    reported_cause{"HS: PROTOCOL malformed",
                                   "the service does not take the subprotocol sub"},
                    reported_cause{"HS: \x1b new\n", "no websocket handshake: HS: ? new?"},
                    reported_cause{"", "no websocket handshake: "}));

TEST_F(LinkCause, MayStandInALogLineAlone) {
    hear("lws_client_connect_3_connect: getsockopt fd 5 says err " + std::to_string(ECONNREFUSED) +
         "\n");
    hear("lws_client_connect_3_connect: getsockopt check: conn fail: errno " +
         std::to_string(EINPROGRESS) + "\n");
    see_error("Unable to connect");
    EXPECT_EQ(cause.text(), "the connection is refused");
}

TEST_F(LinkCause, IsHeardFromTheLogOfEachService) {
    for (const auto convert :
         {portal_lwsl_convert_log, rrm_lwsl_convert_log, wids_lwsl_convert_log}) {
        cause.begin();
        const std::string line = "getsockopt fd 5 says err " + std::to_string(ECONNREFUSED) + '\n';
        convert(0, line.c_str());
        see_error("Unable to connect");
        EXPECT_EQ(cause.text(), "the connection is refused");
    }
}

TEST_F(LinkCause, MayComeWithoutAWord) {
    cause.see(nullptr, LWS_CALLBACK_CLIENT_CONNECTION_ERROR, nullptr, 0);
    EXPECT_EQ(cause.text(), "no websocket handshake: ");
}

TEST_F(LinkCause, OfOneAttemptIsForgottenInTheNext) {
    link_cause::hear("getsockopt fd 5 says err 111\n");
    see_error("Unable to connect");
    cause.begin();
    EXPECT_EQ(cause.text(), "");
    see_error("Unable to connect");
    EXPECT_EQ(cause.text(), "time-out: the host does not answer");
}

TEST_F(LinkCause, IsAnUnknownNameWhenTheLibraryHadNoConnection) {
    errno = ENETUNREACH;  // of a name server
    cause.see_no_beginning();
    EXPECT_EQ(cause.text(), "the name does not resolve");
}

TEST_F(LinkCause, IsTheErrorOfAConnectionThatWasGivenUpAtOnce) {
    errno = ENETUNREACH;
    see(LWS_CALLBACK_WSI_DESTROY);
    errno = 0;
    cause.see_no_beginning();
    EXPECT_EQ(cause.text(), "no route to the host");
    cause.begin();
    cause.see_no_beginning();
    EXPECT_EQ(cause.text(), "the name does not resolve") << "of the next attempt";
}

TEST_F(LinkCause, IsATimeOutWhenTheHandshakeEndsWithoutAWord) {
    see(LWS_CALLBACK_CLOSED_CLIENT_HTTP);
    EXPECT_EQ(cause.text(), "time-out in the handshake");
}

TEST_F(LinkCause, OfACloseFrameIsItsCodeAndReason) {
    see(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE, "\x03\xe9going\taway\x7f");
    see(LWS_CALLBACK_CLIENT_CLOSED);
    EXPECT_EQ(cause.text(), "closed by the service, code 1001 'going?away?'");
}

TEST_F(LinkCause, OfACloseFrameMayBeACodeAlone) {
    see(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE, "\x03\xf0");
    EXPECT_EQ(cause.text(), "closed by the service, code 1008");
}

TEST_F(LinkCause, OfACloseFrameMayHaveAReasonOfOneLetter) {
    see(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE, "\x03\xf0x");
    EXPECT_EQ(cause.text(), "closed by the service, code 1008 'x'");
}

TEST_F(LinkCause, OfACloseFrameMayBeNone) {
    see(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE);
    EXPECT_EQ(cause.text(), "closed by the service without a code");
    cause.begin();
    see(LWS_CALLBACK_WS_PEER_INITIATED_CLOSE, "\x03");
    EXPECT_EQ(cause.text(), "closed by the service without a code") << "half of one";
    cause.begin();
    cause.see(nullptr, LWS_CALLBACK_WS_PEER_INITIATED_CLOSE, nullptr, 2);
    EXPECT_EQ(cause.text(), "closed by the service without a code");
}

TEST_F(LinkCause, IsABrokenConnectionWithoutACloseFrame) {
    see(LWS_CALLBACK_CLIENT_ESTABLISHED);
    EXPECT_EQ(cause.text(), "");
    see(LWS_CALLBACK_CLIENT_CLOSED);
    EXPECT_EQ(cause.text(), "the connection broke off");
}

TEST_F(LinkCause, IsWhatTheLinkHadEnoughOf) {
    cause.note("no pong came");
    see(LWS_CALLBACK_CLIENT_CLOSED);
    EXPECT_EQ(cause.text(), "no pong came");
}

}  // namespace
