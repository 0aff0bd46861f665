#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/GeneralException.h"

namespace Mivra::Test {

/// A packet over bytes of its own, all valid.
struct Packet {
    explicit Packet(std::vector<unsigned char> content)
        : bytes(std::move(content)),
          buffer(new Common::PacketBuffer(reinterpret_cast<char*>(bytes.data()),
                                          static_cast<int>(bytes.size()))) {}
    ~Packet() { buffer->Release(); }
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;

    std::vector<unsigned char> bytes;
    Common::PacketBuffer* buffer;
};

/// Claims `length` bytes and delivers fewer: the stream that ends too early.
class ShortStream : public Common::VersatileBufferStream {
public:
    ShortStream(Packet& packet, std::int64_t claimed)
        : VersatileBufferStream(packet.buffer), length(claimed) {}
    std::int64_t GetLength() override { return length; }

private:
    std::int64_t length;
};

/// The text of the GeneralException that the call throws; "" when it throws none.
template <typename Call>
std::string FailureOf(Call call) {
    try {
        call();
    } catch (const Common::GeneralException& exception) {
        return exception.what();
    }
    return "";
}

/// What a reader or writer at the second of four bytes says of a size that it does not have.
inline std::string Outbound(const char* name, const std::string& size) {
    return std::string(name) + "::checkBuffer: outbound size nRequiredSize " + size +
           ", this->buffer->Position() 1, this->buffer->ActualSize() 4";
}

}  // namespace Mivra::Test
