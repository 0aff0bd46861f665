// A sequence of operations on the content of two packets beside strings that do the same.

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/buffers/VersatileBufferStream.h"
#include "mivra/common/runtime/Reference.h"

namespace {

using namespace Mivra::Common;

/// A packet and what it should hold.
class Pair {
public:
    explicit Pair(int size)
        : memory(static_cast<std::size_t>(size)),
          packet(Reference<PacketBuffer>::Adopt(new PacketBuffer(memory.data(), size))) {
        packet->ActualSize() = 0;
    }

    void Run(OperationSource& source, Pair& other) {
        const int operation = source.Small() % 7;
        const int count = source.Small() % 80 - 4;
        const int offset = source.Small() % 80 - 4;
        switch (operation) {
            case 0:
                return append(source.Bytes(std::max(count, 0)), count);
            case 1:
                return appendFrom(other, offset, count);
            case 2:
                return flush(count);
            case 3:
                return insert(source, offset, count);
            case 4:
                return copy(offset, count);
            case 5:
                return moveTo(other, count);
            default:
                packet->Position() = position = std::clamp(offset, 0, actual());
        }
    }
    void Check() const {
        Require(packet->ActualSize() == actual() && packet->Position() == position);
        Require(std::equal(bytes.begin(), bytes.end(), packet->Buffer()));
    }

private:
    int actual() const { return static_cast<int>(bytes.size()); }
    bool room(int count) const { return count >= 0 && count <= packet->Size() - actual(); }
    bool holds(int offset, int count) const {
        return offset >= 0 && count >= 0 && offset <= actual() && count <= actual() - offset;
    }
    std::string part(int offset, int count) const {
        return bytes.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(count));
    }

    void append(const std::vector<unsigned char>& data, int count) {
        const bool allowed = room(count);
        Require(packet->Append(data.data(), count) == allowed);
        if (allowed) bytes.append(data.begin(), data.end());
    }
    void appendFrom(const Pair& other, int offset, int count) {
        const bool allowed = room(count) && other.holds(offset, count);
        Require(packet->Append(other.packet.get(), offset, count) == allowed);
        if (allowed) bytes += other.part(offset, count);
    }
    /// What is too much empties the packet.
    void flush(int count) {
        const int removed = count == -1 ? position : count;
        const bool allowed = removed == 0 || holds(0, removed);
        Require(packet->Flush(count) == allowed);
        bytes.erase(0, allowed ? static_cast<std::size_t>(removed) : bytes.size());
        position = allowed ? std::max(position - removed, 0) : 0;
    }
    void insert(OperationSource& source, int offset, int count) {
        const bool moves = source.Flag();
        const bool atPosition = source.Flag();
        const int at = atPosition ? position : offset;
        const std::vector<unsigned char> data = source.Bytes(std::max(count, 0));
        std::string inserted(data.begin(), data.end());
        const void* from = data.data();
        if (const int own = source.Small() % 128; holds(own, count)) {
            inserted = part(own, count);
            from = packet->Buffer() + own;
        }
        const bool allowed = holds(at, 0) && room(count);
        Require((atPosition ? packet->Insert(from, count, moves) : packet->Insert(at, from, count, moves)) ==
                allowed);
        if (!allowed) return;
        bytes.insert(static_cast<std::size_t>(at), inserted);
        if (moves && position >= at) position += count;
    }
    void copy(int offset, int count) const {
        const bool allowed = holds(offset, count);
        std::string out(static_cast<std::size_t>(std::max(count, 0)), '?');
        Require(packet->CopyTo(offset, out.data(), count) == allowed);
        Require(!allowed || out == part(offset, count));
        std::string room(out.size(), '?');
        const auto target =
            Reference<PacketBuffer>::Adopt(new PacketBuffer(room.data(), static_cast<int>(room.size())));
        Require(packet->CopyTo(offset, std::make_shared<VersatileBufferStream>(target.get()), count) ==
                allowed);
        Require(!allowed || room == out);
    }
    void moveTo(Pair& other, int count) {
        if (&other == this) return;
        const bool allowed = count > 0 && holds(0, count) && other.room(count);
        Require(packet->MoveTo(other.packet.get(), count) == allowed);
        if (!allowed) return;
        other.bytes += part(0, count);
        bytes.erase(0, static_cast<std::size_t>(count));
        position = std::max(position - count, 0);
    }

    std::vector<char> memory;
    const Reference<PacketBuffer> packet;
    std::string bytes;
    int position = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    OperationSource source(data, size);
    Pair first(source.Small() % 128);
    Pair second(source.Small() % 128);
    for (int operations = 0; !source.AtEnd() && operations < 500; ++operations) {
        Pair& subject = source.Flag() ? first : second;
        subject.Run(source, source.Flag() ? first : second);
        first.Check();
        second.Check();
    }
    return 0;
}
