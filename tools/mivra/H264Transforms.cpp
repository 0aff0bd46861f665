#include "tools/mivra/H264Transforms.h"

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "mivra/common/runtime/GeneralException.h"
#include "tools/mivra/H264Sets.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"

namespace Mivra::Tool {
namespace {

using Bytes = std::span<const unsigned char>;
using Codecs::H264::H264ConfigurationParser;
using Codecs::H264::NalUnitTypes;
using Common::MediaType;
using Common::PacketBuffer;
using UnitList = H264ConfigurationParser::UnitList;

constexpr int kStartCode = 4;
constexpr int kSlack = 16;

[[noreturn]] void failWithoutSets() {
    throw ProblemError(ExitCode::Damaged, {"the stream's parameter sets are missing or malformed", "",
                                           "'mivra probe' tells more"});
}

Bytes bytesOf(PacketBuffer& packet) {
    return {reinterpret_cast<const unsigned char*>(packet.Buffer()),
            static_cast<std::size_t>(packet.ActualSize())};
}

NalUnitTypes typeOf(Bytes unit) {
    return static_cast<NalUnitTypes>(unit[0] & 0x1F);
}

bool isSps(Bytes unit) {
    return typeOf(unit) == NalUnitTypes::SequenceParameterSet;
}

bool isSet(Bytes unit) {
    return isSps(unit) || typeOf(unit) == NalUnitTypes::PictureParameterSet;
}

std::string textOf(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class AnnexBTransform : public PacketTransform {
public:
    MediaType Begin(const MediaType& type, PacketBuffer*) override {
        lengthSize = h264LengthSize(type);
        MediaType out(type);
        if (!H264ConfigurationParser::ConvertPrivateDataToAnnexB(out) || H264Sets(out).Sps().empty()) {
            failWithoutSets();
        }
        sets.assign(out.CodecPrivateData(), out.CodecPrivateData() + out.CodecPrivateDataSize());
        return out;
    }

    Packet Apply(const Packet& packet) override {
        Packet units = packet;
        if (lengthSize > 0) {
            units = makeBuffer(std::int64_t{packet->ActualSize()} * kStartCode / lengthSize + kSlack);
            if (!H264ConfigurationParser::ConvertToAnnexBBitstream(packet.get(), units.get(), lengthSize)) {
                return {};
            }
        }
        Packet whole =
            makeBuffer(std::int64_t{units->ActualSize()} * 2 + static_cast<int>(sets.size()) + kSlack);
        const auto* const data = reinterpret_cast<const unsigned char*>(sets.data());
        const bool done = H264ConfigurationParser::RefineAnnexBBitstream(units.get(), whole.get(), data,
                                                                         static_cast<int>(sets.size()));
        if (done) {
            return whole;
        }
        return packet->KeyFrame() ? Packet() : units;  // nobody begins there: what can be read of it stays
    }

private:
    int lengthSize = 0;
    std::string sets;
};

class AvcTransform : public PacketTransform {
public:
    MediaType Begin(const MediaType& type, PacketBuffer*) override {
        fromLengths = h264LengthSize(type) > 0;
        MediaType out(type);
        if (!H264ConfigurationParser::ConvertPrivateDataToAvc(out)) {
            failWithoutSets();
        }
        const H264Sets sets(out);
        for (const UnitList* const list : {&sets.Sps(), &sets.Pps()}) {
            for (const auto& [data, size] : *list) {
                inRecord.emplace_back(data, data + size);
            }
        }
        return out;
    }

    Packet Apply(const Packet& packet) override {
        if (fromLengths) {
            return packet;
        }
        Packet out = makeBuffer(std::int64_t{packet->ActualSize()} * 2 + kSlack);
        out->CopyAttributes(packet.get());
        const bool done = H264ConfigurationParser::ConvertToAvcBitstream(
            reinterpret_cast<unsigned char*>(packet->Buffer()), packet->ActualSize(), kStartCode, out.get(),
            recordHasSetsOf(*packet.get()));
        return done ? out : Packet();
    }

private:
    bool recordHasSetsOf(PacketBuffer& packet) const {
        std::vector<Bytes> units;
        h264Units(bytesOf(packet), 0, units);
        return std::all_of(units.begin(), units.end(), [this](Bytes unit) {
            return !isSet(unit) || std::any_of(inRecord.begin(), inRecord.end(), [unit](const auto& set) {
                return std::equal(set.begin(), set.end(), unit.begin(), unit.end());
            });
        });
    }

    bool fromLengths = false;
    std::vector<std::vector<unsigned char>> inRecord;
};

class SetTransform : public PacketTransform {
public:
    explicit SetTransform(const SetChanges& what) : changes(what) {}

    MediaType Begin(const MediaType& type, PacketBuffer*) override {
        lengthSize = h264LengthSize(type);
        const H264Sets sets(type);
        if (sets.Sps().empty()) {
            failWithoutSets();
        }
        MediaType out(type);
        const Bytes data(reinterpret_cast<const unsigned char*>(type.CodecPrivateData()),
                         static_cast<std::size_t>(type.CodecPrivateDataSize()));
        const std::string edited = lengthSize > 0 ? editRecord(data) : editStartCoded(data);
        setPrivateData(out, edited.data(), edited.size());
        describe(out, H264Sets(out));
        return out;
    }

    Packet Apply(const Packet& packet) override {
        std::vector<Bytes> units;
        const bool whole = h264Units(bytesOf(*packet.get()), lengthSize, units);
        const auto count = std::count_if(units.begin(), units.end(), isSps);
        if (count == 0) {
            return packet;
        }
        if (!whole) {
            return {};
        }
        constexpr int kMostGrowth = 64;  // of a set: a VUI where there was none
        Packet out = makeBuffer(std::int64_t{packet->ActualSize()} * 2 + count * kMostGrowth);
        out->CopyAttributes(packet.get());
        for (const Bytes unit : units) {
            const std::string text = edited(unit);
            const std::string prefix = prefixOf(text.size());
            if (prefix.empty()) {
                return {};
            }
            out->Append(prefix.data(), static_cast<int>(prefix.size()));
            out->Append(text.data(), static_cast<int>(text.size()));
        }
        return out;
    }

private:
    /// The unit, changed if it is a sequence parameter set.
    std::string edited(Bytes unit) const { return !unit.empty() && isSps(unit) ? edit(unit) : textOf(unit); }

    std::string edit(Bytes unit) const {
        std::vector<unsigned char> copy(unit.begin(), unit.end());
        auto parser = H264Sets::Parse({copy.data(), static_cast<int>(copy.size())});
        if (!parser) {
            failWithoutSets();
        }
        try {
            if (changes.crop) {
                parser->SetCrop(changes.crop->left, changes.crop->right, changes.crop->top,
                                changes.crop->bottom);
            }
            if (changes.aspect) {
                parser->SetAspectRatio(*changes.aspect);
            }
        } catch (const Common::GeneralException& error) {
            throw ProblemError(ExitCode::Usage, {error.what(), "", "'mivra probe' tells the picture's size"});
        }
        constexpr int kMostGrown = 4096;
        const Packet written = makeBuffer(std::int64_t{static_cast<int>(copy.size())} * 2 + kMostGrown);
        parser->ToPacketBuffer(written.get());
        return std::string(written->Buffer(), static_cast<std::size_t>(written->ActualSize()));
    }

    /// The record with its sequence parameter sets edited, and all else, their extensions too, as it is
    /// (ISO/IEC 14496-15 5.3.3.1.2).
    std::string editRecord(Bytes record) const {
        constexpr std::size_t kHead = 6;
        constexpr std::size_t kSize = 2;
        constexpr std::size_t kMostSet = 0xFFFF;
        if (record.size() < kHead) {
            failWithoutSets();
        }
        std::string out = textOf(record.first(kHead));
        Bytes rest = record.subspan(kHead);
        for (int left = record[kHead - 1] & 0x1F; left > 0; --left) {
            const std::size_t size = rest.size() < kSize ? kMostSet : std::size_t{rest[0]} << 8 | rest[1];
            if (rest.size() < kSize || rest.size() - kSize < size) {
                failWithoutSets();
            }
            const std::string set = edited(rest.subspan(kSize, size));
            if (set.size() > kMostSet) {
                failWithoutSets();
            }
            out += static_cast<char>(set.size() >> 8);
            out += static_cast<char>(set.size());
            out += set;
            rest = rest.subspan(kSize + size);
        }
        return out + textOf(rest);
    }

    std::string editStartCoded(Bytes stream) const {
        std::vector<Bytes> units;
        h264Units(stream, 0, units);
        std::string out;
        for (const Bytes unit : units) {
            const std::string text = edited(unit);
            out += prefixOf(text.size()) + text;
        }
        return out;
    }

    /// What the container tells of the picture follows the sets.
    void describe(MediaType& out, const H264Sets& sets) const {
        const auto parser = sets.Sps().empty() ? std::nullopt : H264Sets::Parse(sets.Sps().front());
        out.Width() = parser ? parser->GetWidth() : out.Width();
        out.Height() = parser ? parser->GetHeight() : out.Height();
        if (changes.aspect) {
            out.PixelAspectRatio() = *changes.aspect;
            out.CodecMetadata()[Key::kAspectUnknown] = changes.aspect->IsNull() ? 1 : 0;
        }
    }

    /// What stands in front of a unit of so many bytes; empty when the lengths have too few bits for it.
    std::string prefixOf(std::size_t unit) const {
        if (lengthSize == 0) {
            return {0, 0, 0, 1};
        }
        std::string prefix(static_cast<std::size_t>(lengthSize), '\0');
        for (auto digit = prefix.rbegin(); digit != prefix.rend(); ++digit) {
            *digit = static_cast<char>(unit);
            unit >>= 8;
        }
        return unit == 0 ? prefix : std::string();
    }

    const SetChanges changes;
    int lengthSize = 0;
};

/// One after the other.
class TransformChain : public PacketTransform {
public:
    TransformChain(std::unique_ptr<PacketTransform> one, std::unique_ptr<PacketTransform> other)
        : first(std::move(one)), second(std::move(other)) {}

    MediaType Begin(const MediaType& type, PacketBuffer* packet) override {
        return second->Begin(first->Begin(type, packet), packet);
    }

    Packet Apply(const Packet& packet) override {
        const Packet between = first->Apply(packet);
        return between ? second->Apply(between) : Packet();
    }

private:
    const std::unique_ptr<PacketTransform> first;
    const std::unique_ptr<PacketTransform> second;
};

}  // namespace

std::unique_ptr<PacketTransform> makeAnnexBTransform() {
    return std::make_unique<AnnexBTransform>();
}

std::unique_ptr<PacketTransform> makeAvcTransform() {
    return std::make_unique<AvcTransform>();
}

std::unique_ptr<PacketTransform> makeSetTransform(const SetChanges& changes, bool annexB) {
    auto sets = std::make_unique<SetTransform>(changes);
    if (!annexB) {
        return sets;
    }
    return std::make_unique<TransformChain>(std::move(sets), makeAnnexBTransform());
}

}  // namespace Mivra::Tool
