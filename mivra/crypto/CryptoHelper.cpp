#include "mivra/crypto/CryptoHelper.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>

namespace Mivra::Crypto {
namespace {

// Three bytes give four characters. Pieces of whole groups keep OpenSSL's int sizes from overflowing.
constexpr std::size_t kPiece = 3 << 20;

std::string encode(const unsigned char* data, std::size_t size) {
    std::string text((size + 2) / 3 * 4 + 1, '\0');  // the encoder adds a terminating zero
    std::size_t length = 0;
    for (std::size_t done = 0; done < size; done += kPiece) {
        const std::size_t piece = std::min(size - done, kPiece);
        length += static_cast<std::size_t>(::EVP_EncodeBlock(
            reinterpret_cast<unsigned char*>(text.data()) + length, data + done, static_cast<int>(piece)));
    }
    text.resize(length);
    return text;
}

}  // namespace

std::string CryptoHelper::ToBase64(const unsigned char* data, int size) {
    return size > 0 ? encode(data, static_cast<std::size_t>(size)) : std::string();
}

std::string CryptoHelper::ToBase64(const std::string& data) {
    return encode(reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

}  // namespace Mivra::Crypto
