// WebsockLink: a worker and its service, before or after the handshake.
#ifndef TESTS_WEBSOCK_LINK_FIXTURE_H
#define TESTS_WEBSOCK_LINK_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "log_capture.h"
#include "lws_gate.h"
#include "websock_worker_peer.h"

constexpr std::size_t mebibyte = 1024 * 1024;

class WebsockLink : public testing::Test {
  protected:
    void establish() {
        ASSERT_TRUE(peer.establish());
        ASSERT_THAT(peer.received(), testing::ElementsAre(connected_text));
    }
    bool lost() {
        return peer.until([this] { return !peer.usable(); });
    }
    // For what another thread does.
    static bool wait_until(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::yield();
        }
        return true;
    }
    void step(int times) {
        for (int i = 0; i < times; ++i)
            peer.step();
    }

    // The library no longer reaches the worker.
    static void expect_cleared_gate() {
        const LogCapture log;
        EXPECT_EQ(lws_callback_obj.call(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 0), 0);
        EXPECT_TRUE(log.contains("No function to process lws callback("));
    }

    websock_worker_peer peer;
    RawService& service = peer.service;
};

#endif
