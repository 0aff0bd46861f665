#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>

#include "mivra/common/model/MediaType.h"

namespace Mivra::Test {

/// Gives a type a copy of the bytes as its private data; of none: none.
template <typename Bytes>
void SetPrivateData(Common::MediaType& type, const Bytes& bytes) {
    std::free(type.CodecPrivateData());
    type.CodecPrivateData() = bytes.empty() ? nullptr : static_cast<char*>(std::malloc(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), type.CodecPrivateData());
    type.CodecPrivateDataSize() = static_cast<int>(bytes.size());
}

template <typename Bytes = std::string>
Bytes PrivateDataOf(const Common::MediaType& type) {
    return Bytes(type.CodecPrivateData(), type.CodecPrivateData() + type.CodecPrivateDataSize());
}

}  // namespace Mivra::Test
