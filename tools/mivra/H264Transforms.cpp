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

bool isSet(Bytes unit) {
    return typeOf(unit) == NalUnitTypes::SequenceParameterSet ||
           typeOf(unit) == NalUnitTypes::PictureParameterSet;
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
        if (!packet->KeyFrame()) {
            return units;
        }
        Packet whole =
            makeBuffer(std::int64_t{units->ActualSize()} * 2 + static_cast<int>(sets.size()) + kSlack);
        const auto* const data = reinterpret_cast<const unsigned char*>(sets.data());
        const bool done = H264ConfigurationParser::RefineAnnexBBitstream(units.get(), whole.get(), data,
                                                                         static_cast<int>(sets.size()));
        return done ? whole : Packet();
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
        const std::vector<Bytes> units = h264Units(bytesOf(packet), 0);
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
        std::vector<std::string> edited;
        UnitList spsList;
        for (const auto& [data, size] : sets.Sps()) {
            edited.push_back(edit({data, static_cast<std::size_t>(size)}));
        }
        for (std::string& unit : edited) {
            spsList.emplace_back(reinterpret_cast<unsigned char*>(unit.data()),
                                 static_cast<int>(unit.size()));
        }
        MediaType out(type);
        replaceSets(out, spsList, sets.Pps());
        describe(out, spsList.front());
        return out;
    }

    Packet Apply(const Packet& packet) override {
        const std::vector<Bytes> units = h264Units(bytesOf(*packet.get()), lengthSize);
        const auto isSps = [](Bytes unit) { return typeOf(unit) == NalUnitTypes::SequenceParameterSet; };
        const auto count = std::count_if(units.begin(), units.end(), isSps);
        if (count == 0) {
            return packet;
        }
        constexpr int kMostGrowth = 64;  // of a set: a VUI where there was none
        Packet out = makeBuffer(std::int64_t{packet->ActualSize()} * 2 + count * kMostGrowth);
        out->CopyAttributes(packet.get());
        for (const Bytes unit : units) {
            append(*out.get(), isSps(unit)
                                   ? edit(unit)
                                   : std::string(reinterpret_cast<const char*>(unit.data()), unit.size()));
        }
        return out;
    }

private:
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
        constexpr int kMostSet = 4096;
        const Packet written = makeBuffer(std::int64_t{static_cast<int>(copy.size())} * 2 + kMostSet);
        parser->ToPacketBuffer(written.get());
        return std::string(written->Buffer(), static_cast<std::size_t>(written->ActualSize()));
    }

    void replaceSets(MediaType& out, const UnitList& spsList, const UnitList& ppsList) const {
        const bool done =
            lengthSize > 0 ? H264ConfigurationParser::GenerateCodecPrivateData(out, spsList, ppsList)
                           : H264ConfigurationParser::GenerateAnnexBCodecPrivateData(out, spsList, ppsList);
        if (!done) {
            failWithoutSets();
        }
        if (lengthSize > 0) {
            out.CodecPrivateData()[4] = static_cast<char>(0xFC | (lengthSize - 1));  // as the packets have it
        }
    }

    /// What the container tells of the picture follows the sets.
    void describe(MediaType& out, std::pair<unsigned char*, int> sps) const {
        const auto parser = H264Sets::Parse(sps);
        out.Width() = parser ? parser->GetWidth() : out.Width();
        out.Height() = parser ? parser->GetHeight() : out.Height();
        if (changes.aspect) {
            out.PixelAspectRatio() = *changes.aspect;
            out.CodecMetadata()[Key::kAspectUnknown] = changes.aspect->IsNull() ? 1 : 0;
        }
    }

    void append(PacketBuffer& out, const std::string& unit) const {
        char prefix[kStartCode] = {0, 0, 0, 1};
        const int size = lengthSize > 0 ? lengthSize : kStartCode;
        for (int i = 0; lengthSize > 0 && i < size; ++i) {
            prefix[i] = static_cast<char>(unit.size() >> (8 * (size - 1 - i)));
        }
        out.Append(prefix, size);
        out.Append(unit.data(), static_cast<int>(unit.size()));
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
