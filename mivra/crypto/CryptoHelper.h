#pragma once

#include <string>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Crypto {

/// Text forms of binary data. Any thread may call it.
class MIVRA_API CryptoHelper {
public:
    /// Standard Base64 with "=" padding and no line breaks; empty when the size is below 1.
    static std::string ToBase64(const unsigned char* data, int size);
    static std::string ToBase64(const std::string& data);
};

}  // namespace Mivra::Crypto
