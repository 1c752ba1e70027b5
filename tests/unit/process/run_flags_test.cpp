#include "run_flags.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

volatile bool* const flags[] = {&ipc_run,     &portal_run, &rrm_run,
                                &orvanta_run, &wids_run,   &wids_sock_run};

TEST(RunFlags, AreClearAtLoad) {
    for (const volatile bool* flag : flags)
        EXPECT_FALSE(*flag);
}

TEST(RunFlags, AreSixOfTheirOwn) {
    for (volatile bool* set : flags) {
        *set = true;
        for (const volatile bool* flag : flags)
            EXPECT_EQ(*flag, flag == set);
        *set = false;
    }
}

TEST(RunFlags, TheSignalHandlerClearsEachOfThem) {
    for (volatile bool* flag : flags)
        *flag = true;
    lumd_handle_signal(SIGTERM);
    for (const volatile bool* flag : flags)
        EXPECT_FALSE(*flag);
}

}  // namespace
