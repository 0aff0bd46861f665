#include "mivra/codecs/h264/PrivateData.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/platform/System.h"

namespace Mivra::Codecs::H264 {

namespace {

using Bytes = std::span<const unsigned char>;

constexpr unsigned char LongStartCode[] = {0, 0, 0, 1};  // zero_byte and start_code_prefix_one_3bytes

Bytes privateDataOf(const Common::MediaType& type) {
    if (type.CodecPrivateData() == nullptr || type.CodecPrivateDataSize() <= 0) {
        return {};
    }
    return {reinterpret_cast<const unsigned char*>(type.CodecPrivateData()),
            static_cast<std::size_t>(type.CodecPrivateDataSize())};
}

bool isRecord(Bytes data) {
    return !data.empty() && data[0] == AvcConfigurationRecord::Version;
}

/// Calls write() with new memory of so many bytes, which then takes the place of the old.
template <typename Write>
void replacePrivateData(Common::MediaType& type, std::size_t size, Write write) {
    auto* memory = static_cast<unsigned char*>(Platform::System().allocate(size));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    write(memory);
    std::free(type.CodecPrivateData());
    type.CodecPrivateData() = reinterpret_cast<char*>(memory);
    type.CodecPrivateDataSize() = static_cast<std::int32_t>(size);
}

bool refused(const char* caller, const char* why) {
    Common::LogLine(Common::FileLog::Warning, "H264ConfigurationParser::%s: %s", caller, why);
    return false;
}

/// The sets in the order in which a stream has them.
template <typename Visit>
void forEachUnit(const ParameterSetUnits& sets, Visit visit) {
    for (const auto* units : {&sets.sps, &sets.spsExtensions, &sets.pps}) {
        std::for_each(units->begin(), units->end(), visit);
    }
}

}  // namespace

std::optional<ParameterSetUnits> parameterSetsOf(Bytes privateData) {
    if (!isRecord(privateData)) {
        return findParameterSets(privateData);
    }
    auto record = AvcConfigurationRecord::Read(privateData);
    if (!record) {
        return std::nullopt;
    }
    return std::move(record->sets);
}

bool makeAvcPrivateData(Common::MediaType& type, ParameterSetUnits sets, const char* caller) {
    const auto record = AvcConfigurationRecord::Make(std::move(sets));
    if (!record) {
        return refused(caller, "the parameter sets make no configuration record");
    }
    replacePrivateData(type, record->Size(), [&](unsigned char* out) { record->Write(out); });
    return true;
}

bool makeAnnexBPrivateData(Common::MediaType& type, const ParameterSetUnits& sets, const char* caller) {
    std::size_t size = 0;
    bool carried = !sets.sps.empty();
    forEachUnit(sets, [&](NalUnit unit) {
        size += sizeof LongStartCode + unit.size();
        carried = carried && !unit.empty() && !findStartCode(unit);
    });
    if (!carried || size > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        return refused(caller, "the parameter sets make no byte stream");
    }
    replacePrivateData(type, size, [&](unsigned char* out) {
        forEachUnit(sets, [&](NalUnit unit) {
            out = std::copy(std::begin(LongStartCode), std::end(LongStartCode), out);
            out = std::copy(unit.begin(), unit.end(), out);
        });
    });
    return true;
}

bool convertPrivateDataToAnnexB(Common::MediaType& type) {
    constexpr const char* Name = "ConvertPrivateDataToAnnexB";
    const Bytes data = privateDataOf(type);
    if (!isRecord(data)) {
        return true;
    }
    const auto sets = parameterSetsOf(data);
    return sets ? makeAnnexBPrivateData(type, *sets, Name)
                : refused(Name, "the configuration record is malformed");
}

bool convertPrivateDataToAvc(Common::MediaType& type) {
    const Bytes data = privateDataOf(type);
    return data.empty() || isRecord(data) ||
           makeAvcPrivateData(type, findParameterSets(data), "ConvertPrivateDataToAvc");
}

}  // namespace Mivra::Codecs::H264
