#include "mivra/crypto/CryptoHelper.h"

#include <gtest/gtest.h>

namespace Mivra::Test {
namespace {

using Crypto::CryptoHelper;

TEST(CryptoHelperTest, EncodesBase64) {
    // RFC 4648, 10, and bytes of every six-bit value at the ends of the alphabet.
    const std::pair<std::string, const char*> table[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {"\xFB\xEF\xFF", "++//"},
        {std::string(3, '\0'), "AAAA"},
    };
    for (const auto& [data, text] : table) {
        EXPECT_EQ(CryptoHelper::ToBase64(data), text);
        EXPECT_EQ(CryptoHelper::ToBase64(reinterpret_cast<const unsigned char*>(data.data()),
                                         static_cast<int>(data.size())),
                  text);
    }
    EXPECT_EQ(CryptoHelper::ToBase64(nullptr, 0), "");
    EXPECT_EQ(CryptoHelper::ToBase64(nullptr, -1), "");
}

TEST(CryptoHelperTest, PutsNoLineBreaksIntoLongText) {
    constexpr std::size_t kGroups = (3 << 20) / 3 + 5;  // more than is encoded in one piece
    std::string data, expected;
    for (std::size_t i = 0; i < kGroups; ++i) {
        data += "foo";
        expected += "Zm9v";
    }
    EXPECT_TRUE(CryptoHelper::ToBase64(data + "f") == expected + "Zg==");
}

}  // namespace
}  // namespace Mivra::Test
