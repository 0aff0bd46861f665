#pragma once

// For fuzz targets that run sequences of operations: the operations and their arguments out of the input.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

/// Ends the run when something is not as it should be.
inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Bytes of the input, one after the other; zeros behind its end.
class OperationSource {
public:
    OperationSource(const std::uint8_t* begin, std::size_t size) : next(begin), end(begin + size) {}

    bool AtEnd() const { return next == end; }
    /// 0 to 255.
    int Small() { return AtEnd() ? 0 : *next++; }
    bool Flag() { return (Small() & 1) != 0; }
    /// Mostly near to 0, of either sign, up to 24 bits.
    std::int64_t Number() {
        const int form = Small();
        std::int64_t value = Small();
        for (int more = form & 3; more > 1; --more) {
            value = value << 8 | Small();
        }
        return (form & 4) != 0 ? -value : value;
    }
    /// Bytes that differ from one place to the next.
    std::vector<unsigned char> Bytes(int count) {
        const int first = Small();
        std::vector<unsigned char> bytes(static_cast<std::size_t>(count));
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<unsigned char>(static_cast<std::size_t>(first) + i * 3);
        }
        return bytes;
    }

private:
    const std::uint8_t* next;
    const std::uint8_t* end;
};
