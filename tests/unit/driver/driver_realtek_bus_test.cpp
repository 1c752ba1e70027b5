#include "driver_fixture.h"
#include "owned.h"

namespace {

std::optional<int> wait_limit;  // seconds, of the last wait for an answer

}  // namespace

// The linker puts this in place of the bus client's call (--wrap).
extern "C" {
cfgtree_node* __real_msgbus_wait_answer(msgbus_context* ctx, const char* command,
                                        const char* error_text, int timeout);
cfgtree_node* __wrap_msgbus_wait_answer(msgbus_context* ctx, const char* command,
                                        const char* error_text, int timeout) {
    wait_limit = timeout;
    return __real_msgbus_wait_answer(ctx, command, error_text, timeout);
}
}

namespace {

TEST_F(DriverTest, IsTheModuleThatAsksForRadioSettings) {
    driver();
    EXPECT_EQ(msgbus_ptr{msgbus_init(ORVANTAMOD, nullptr, 0)}, nullptr) << "it holds that number";
    EXPECT_NE(msgbus_ptr{msgbus_init(GUARDDMOD, nullptr, 0)}, nullptr);
}

TEST_F(DriverTest, WaitsTwentySecondsForAnAnswerOverTheBus) {
    driver().get_dca();
    EXPECT_EQ(wait_limit, 20);
}

}  // namespace
