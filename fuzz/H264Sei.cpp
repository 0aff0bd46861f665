// SEI messages: the first two bytes are the type of one to insert, the third its size; then its payload, and
// the packet (Annex B). What is inserted is found, and what was there before too.

#include <algorithm>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "mivra/common/runtime/Reference.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    using namespace Mivra::Codecs::H264;
    using Mivra::Common::PacketBuffer;
    using Parser = H264ConfigurationParser;
    if (size < 3) {
        return 0;
    }
    const auto type = static_cast<SeiPayloadTypes>(input[0] | (input[1] & 3) << 8);
    const std::vector<unsigned char> payload(input + 3, input + std::min<std::size_t>(size, 3U + input[2]));
    const std::uint8_t* const begin = input + 3 + payload.size();
    const auto content = static_cast<std::size_t>(input + size - begin);
    std::vector<unsigned char> memory(begin, input + size);
    memory.resize(content + ((input[1] & 4) != 0 ? 8 : 512));
    const auto packet = Mivra::Common::Reference<PacketBuffer>::Adopt(
        new PacketBuffer(reinterpret_cast<char*>(memory.data()), static_cast<int>(memory.size())));
    packet->ActualSize() = static_cast<int>(content);

    std::vector<std::optional<std::vector<unsigned char>>> before;
    for (int each = 0; each < 16; ++each) {
        before.push_back(Parser::FindSei(packet.get(), static_cast<SeiPayloadTypes>(each)));
    }
    const auto old = Parser::FindSei(packet.get(), type);
    if (Parser::InsertSei(packet.get(), type, payload.data(), static_cast<int>(payload.size()))) {
        const auto found = Parser::FindSei(packet.get(), type);
        const bool first = type == SeiPayloadTypes::BufferingPeriod || !old;
        Require(found && *found == (first ? payload : *old));
    } else {
        Require(packet->ActualSize() == static_cast<int>(content));
        Require(std::equal(begin, input + size, memory.begin()));
    }
    for (int each = 0; each < 16; ++each) {
        if (static_cast<SeiPayloadTypes>(each) != type) {
            Require(Parser::FindSei(packet.get(), static_cast<SeiPayloadTypes>(each)) ==
                    before[static_cast<std::size_t>(each)]);
        }
    }
    return 0;
}
