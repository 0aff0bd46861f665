// Emulation prevention: every path of the processor does what the standard tells byte by byte, a payload
// comes back out of its unit, and a unit is found again behind its start code.

#include <algorithm>

#include "fuzz/OperationSource.h"
#include "mivra/codecs/h264/AnnexB.h"
#include "mivra/codecs/h264/ByteKernels.h"
#include "mivra/codecs/h264/EmulationPrevention.h"
#include "tests/support/NalReference.h"

using namespace Mivra::Codecs::H264;
using Mivra::Test::NalBytes;

namespace {

void checkPath(const ByteKernels& path, const NalBytes& in) {
    const unsigned char* begin = in.data();
    const unsigned char* end = begin + in.size();
    Require(static_cast<std::size_t>(path.findPrefix(begin, end) - begin) ==
            Mivra::Test::ReferencePrefix(in));
    NalBytes out(in.size());
    out.resize(path.removePrevention(begin, end, out.data()));
    Require(out == Mivra::Test::ReferenceRemoved(in));
    out.assign(path.preventedSize(begin, end), 0xEE);
    Require(path.insertPrevention(begin, end, out.data()) == out.size());
    Require(out == Mivra::Test::ReferenceInserted(in));
}

/// Removal takes the byte behind a last zero away when two zeros stand in front of it, as cabac_zero_words
/// do.
bool comesBack(const NalBytes& payload, const NalBytes& unit) {
    return payload.empty() || payload.back() != 0 || (unit.size() > 2 && unit[unit.size() - 3] == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const NalBytes payload(data, data + size);
    for (const ByteKernels* path : usableByteKernels()) {
        checkPath(*path, payload);
    }
    NalBytes unit(emulationPreventedSize(payload));
    Require(applyEmulationPrevention(payload, unit.data()) == unit.size());
    Require(unit.size() <= size + size / 2 + 1);
    Require(unit.empty() || unit.back() != 0);
    NalBytes back(unit.size());
    back.resize(removeEmulationPrevention(unit, back.data()));
    Require((back == payload) == comesBack(payload, unit));

    NalBytes stream = {0, 0, 0, 1};
    stream.insert(stream.end(), unit.begin(), unit.end());
    AnnexBUnits units(stream);
    const auto found = units.Next();
    Require(found.has_value() == !unit.empty());
    Require(!found || std::equal(found->begin(), found->end(), unit.begin(), unit.end()));
    Require(!units.Next());
    return 0;
}
