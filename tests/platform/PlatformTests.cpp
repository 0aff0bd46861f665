#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mivra/platform/ThreadId.h"
#include "mivra/platform/Utf8.h"

namespace Mivra::Test {
namespace {

TEST(Utf8Test, ConvertsTheEndsOfEveryLength) {
    const std::pair<std::wstring, std::string> table[] = {
        {L"", ""},
        {std::wstring(1, L'\0') + L"\x7F", std::string(1, '\0') + "\x7F"},
        {{0x80, 0x7FF}, "\xC2\x80\xDF\xBF"},
        {{0x800, 0xFFFF}, "\xE0\xA0\x80\xEF\xBF\xBF"},
        {{0x10000, 0x10FFFF}, "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        // No characters: lone surrogates and what lies above.
        {{0xD800, 0xDFFF, 0x110000}, "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const auto& [wide, bytes] : table)
        EXPECT_EQ(Platform::WideToUtf8(wide), bytes);
}

TEST(ThreadIdTest, IsTheKernelsAlsoAfterAFork) {
    EXPECT_EQ(Platform::CurrentThreadId(), ::gettid());
    const pid_t child = ::fork();
    if (child == 0) ::_exit(Platform::CurrentThreadId() == ::gettid() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace Mivra::Test
