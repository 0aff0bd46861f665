// Codec private data of H.264: whatever it is, what is found lies inside of it, what fails changes nothing,
// and what has been in both forms stays the same on every further way there and back.

#include <cstring>

#include "fuzz/OperationSource.h"
#include "mivra/codecs/h264/AvcConfigurationRecord.h"
#include "mivra/codecs/h264/H264ConfigurationParser.h"

using namespace Mivra::Codecs::H264;
using Mivra::Common::MediaType;

namespace {

using Bytes = std::vector<unsigned char>;
using Parser = H264ConfigurationParser;

MediaType typeWith(const Bytes& data) {
    MediaType type;
    if (!data.empty()) {
        type.CodecPrivateData() = static_cast<char*>(std::malloc(data.size()));
        std::memcpy(type.CodecPrivateData(), data.data(), data.size());
        type.CodecPrivateDataSize() = static_cast<int>(data.size());
    }
    return type;
}

Bytes dataOf(const MediaType& type) {
    return {type.CodecPrivateData(), type.CodecPrivateData() + type.CodecPrivateDataSize()};
}

struct Converted {
    bool good;
    Bytes data;
};

Converted convert(bool (*conversion)(MediaType&), const Bytes& data) {
    MediaType type = typeWith(data);
    const bool good = conversion(type);
    return {good, dataOf(type)};
}

bool isRecord(const Bytes& data) {
    return !data.empty() && data[0] == AvcConfigurationRecord::Version;
}

void checkInside(const Bytes& data, const Parser::UnitList& list) {
    const unsigned char* place = data.data();
    for (const auto& [unit, size] : list) {
        Require(size > 0 && unit >= place && size <= data.data() + data.size() - unit);
        place = unit + size;
    }
}

void checkFinding(Bytes data) {
    Parser::UnitList spsList;
    Parser::UnitList ppsList;
    const bool found =
        Parser::FindSpsPpsInInitString(data.data(), static_cast<int>(data.size()), spsList, ppsList);
    checkInside(data, spsList);
    checkInside(data, ppsList);
    Require(found == !spsList.empty());
    const auto firstOf = [](const Parser::UnitList& list) {
        return list.empty() ? Parser::UnitList::value_type(nullptr, 0) : list.front();
    };
    Parser::UnitList::value_type sps;
    Parser::UnitList::value_type pps;
    Require(found == Parser::FindSpsPpsInInitString(data.data(), static_cast<int>(data.size()), sps.first,
                                                    sps.second, pps.first, pps.second));
    Require(sps == firstOf(spsList) && pps == firstOf(ppsList));
    MediaType type = typeWith(data);
    if (Parser::GenerateAnnexBCodecPrivateData(type, spsList, ppsList)) {
        Require(dataOf(type)[3] == 1);
    } else {
        Require(dataOf(type) == data);
    }
}

void checkRecord(const Bytes& data) {
    const auto record = AvcConfigurationRecord::Read(data);
    if (!record) {
        return;
    }
    Bytes written(record->Size());
    record->Write(written.data());
    const auto again = AvcConfigurationRecord::Read(written);
    Require(again && again->Size() == written.size());
    Bytes rewritten(written.size());
    again->Write(rewritten.data());
    Require(rewritten == written);
}

/// What is good in the one form is so in the other, and comes back to the byte.
void checkThereAndBack(const Bytes& record) {
    Require(isRecord(record));
    const Converted annexB = convert(Parser::ConvertPrivateDataToAnnexB, record);
    Require(annexB.good && annexB.data[0] == 0);
    const Converted back = convert(Parser::ConvertPrivateDataToAvc, annexB.data);
    Require(back.good && back.data == record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    const Bytes data(input, input + size);
    checkFinding(data);
    checkRecord(data);
    const Converted annexB = convert(Parser::ConvertPrivateDataToAnnexB, data);
    const Converted avc = convert(Parser::ConvertPrivateDataToAvc, data);
    if (!isRecord(data)) {
        Require(annexB.good && annexB.data == data);
        if (avc.good && !data.empty()) {
            checkThereAndBack(avc.data);
        } else {
            Require(avc.data == data);
        }
        return 0;
    }
    Require(avc.good && avc.data == data);
    Require(annexB.good || annexB.data == data);
    if (annexB.good) {
        // A record tells kinds by place, a byte stream by type: from here on they agree.
        const Converted back = convert(Parser::ConvertPrivateDataToAvc, annexB.data);
        if (back.good) {
            checkThereAndBack(back.data);
        }
    }
    return 0;
}
