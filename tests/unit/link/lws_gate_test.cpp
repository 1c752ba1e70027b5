#include "lws_gate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

#include "log_capture.h"

namespace {

// --- the gate ---

TEST(LwsCallbackGate, WithoutAFunctionLogsAndAnswersZero) {
    const LogCapture log;
    LockedLwsCallback gate{"gate"};
    EXPECT_EQ(gate.call(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 7), 0);
    EXPECT_TRUE(log.contains("debug: No function to process lws callback("));
    EXPECT_TRUE(log.contains(", 1000, "));
    EXPECT_TRUE(log.contains(", 7)"));
}

TEST(LwsCallbackGate, PassesTheCallOnUntilItIsCleared) {
    LockedLwsCallback gate{"gate"};
    gate.set([](lws*, lws_callback_reasons reason, void*, void*, std::size_t len) {
        return static_cast<int>(reason) + static_cast<int>(len);
    });
    EXPECT_EQ(gate.call(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 7), 1007);
    gate.clear();
    EXPECT_EQ(gate.call(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 7), 0);
}

TEST(LwsCallbackGate, PassesEveryArgumentOn) {
    LockedLwsCallback gate{"gate"};
    int user = 0;
    int in = 0;
    gate.set([&](lws* wsi, lws_callback_reasons, void* user_, void* in_, std::size_t) {
        return wsi == nullptr && user_ == &user && in_ == &in ? 1 : 0;
    });
    EXPECT_EQ(gate.call(nullptr, LWS_CALLBACK_USER, &user, &in, 0), 1);
}

TEST(LwsCallbackGate, LetsACallbackCallBack) {
    LockedLwsCallback gate{"gate"};
    gate.set([&](lws*, lws_callback_reasons reason, void*, void*, std::size_t len) {
        return len == 0 ? 5 : gate.call(nullptr, reason, nullptr, nullptr, len - 1);
    });
    EXPECT_EQ(gate.call(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 2), 5);
}

TEST(LwsCallbackGate, IsClearedOnlyAfterTheCallbackThatRuns) {
    LockedLwsCallback gate{"gate"};
    std::atomic<bool> inside = false;
    std::atomic<bool> over = false;
    std::atomic<bool> cleared = false;
    bool cleared_while_inside = false;
    gate.set([&](lws*, lws_callback_reasons, void*, void*, std::size_t) {
        inside = true;
        for (int i = 0; i < 1000 && !cleared; ++i)
            std::this_thread::yield();
        cleared_while_inside = cleared;
        over = true;
        return 0;
    });
    std::thread library([&] { gate.call(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 0); });
    while (!inside)
        std::this_thread::yield();
    gate.clear();
    cleared = true;
    library.join();
    EXPECT_TRUE(over);
    EXPECT_FALSE(cleared_while_inside);
}

TEST(LwsCallbackGate, IsWhatTheLibraryCalls) {
    lws_callback_obj.set([](lws*, lws_callback_reasons reason, void*, void*, std::size_t len) {
        return static_cast<int>(reason) + static_cast<int>(len);
    });
    EXPECT_EQ(__callback_lws_process(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 3), 1003);
    lws_callback_obj.clear();
    EXPECT_EQ(__callback_lws_process(nullptr, LWS_CALLBACK_USER, nullptr, nullptr, 3), 0);
}

// --- names of reasons ---

struct named_reason {
    int number;
    const char* identifier;
};

constexpr named_reason reasons_of_the_library[] = {
#define LWS_REASON(identifier) {identifier, #identifier},
#include "lws_reasons.inc"
#undef LWS_REASON
};

TEST(CallbackReasons, AreNamedAsTheLibraryInUseNamesThem) {
    for (const named_reason& reason : reasons_of_the_library)
        EXPECT_STREQ(lws_callback_reason_name(reason.number), reason.identifier);
}

TEST(CallbackReasons, WithoutANameAreUnknown) {
    std::set<int> named;
    for (const named_reason& reason : reasons_of_the_library)
        named.insert(reason.number);
    ASSERT_GT(named.size(), 100U);
    for (int number = -5; number <= LWS_CALLBACK_USER + 5; ++number) {
        if (named.count(number) == 0) {
            EXPECT_STREQ(lws_callback_reason_name(number), "UNKNOWN_LWS_CALLBACK_REASON") << number;
        }
    }
}

}  // namespace
