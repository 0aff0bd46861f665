#include "tools/mivra/Interrupt.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace Mivra::Tool {
namespace {

TEST(Interrupt, TheFirstSignalIsARequestAndPipesDoNotKill) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const Interrupt interrupt;
        EXPECT_FALSE(Interrupt::IsRequested());
        EXPECT_FALSE(Interrupt::Wait(0));
        std::raise(SIGPIPE);
        std::raise(signal);
        EXPECT_TRUE(Interrupt::Wait(-1));
        EXPECT_TRUE(Interrupt::Wait(-1));  // stays requested
    }
}

TEST(InterruptDeathTest, TheSecondSignalEndsTheProgram) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            const Interrupt interrupt;
            std::raise(SIGINT);
            std::raise(SIGINT);
            std::exit(0);
        },
        testing::KilledBySignal(SIGINT), "");
}

}  // namespace
}  // namespace Mivra::Tool
