#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace Mivra::Test {

/// How often the running test does its round: as often as in a soak with MIVRA_SOAK=1 in the environment. The
/// file that MIVRA_SOAK_REPORT names, if any, gets a line: the test's name, a blank, the count.
inline int SoakCount(int plain, int soak) {
    const char* const wanted = std::getenv("MIVRA_SOAK");
    const int count = wanted != nullptr && std::string(wanted) == "1" ? soak : plain;
    if (const char* const report = std::getenv("MIVRA_SOAK_REPORT")) {
        const auto* const test = ::testing::UnitTest::GetInstance()->current_test_info();
        std::ofstream(report, std::ios::app)
            << std::string(test->test_suite_name()) + "." + test->name() + " " + std::to_string(count) + "\n";
    }
    return count;
}

}  // namespace Mivra::Test
