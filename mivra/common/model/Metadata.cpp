#include "mivra/common/model/Metadata.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <utility>
#include <vector>

#include "mivra/common/binary/EndianBinaryReader.h"
#include "mivra/common/binary/EndianBinaryWriter.h"

namespace Mivra::Common {

/// The operations on whole trees. Each keeps a list of the maps that it still has before it, so that depth
/// costs memory of the heap and no stack.
class MetadataTree {
public:
    static void Copy(const Metadata& source, Metadata& destination);
    static bool Equal(const Metadata& left, const Metadata& right);
    static bool SlotsEqual(const MetadataObject& left, const MetadataObject& right);
    static void Destroy(Metadata* tree) noexcept;
    static void DestroyNested(Metadata& map) noexcept;

    static void Check(EndianBinaryReader& reader, bool object);
    static void Read(EndianBinaryReader& reader, Metadata& map);
    static bool ReadSlots(EndianBinaryReader& reader, MetadataObject& object);
    static void Write(EndianBinaryWriter& writer, const Metadata& map);
    static void WriteSlots(EndianBinaryWriter& writer, const MetadataObject& object);

private:
    static std::int32_t readCount(EndianBinaryReader& reader);
    static void skip(EndianBinaryReader& reader, std::int64_t count);
    static void skipText(EndianBinaryReader& reader);
    static bool skipSlots(EndianBinaryReader& reader);
    static void writeText(EndianBinaryWriter& writer, const std::string& text);
};

namespace {

// Two lengths, the integer, the double and the flag.
constexpr std::int64_t MinEntrySize = 4 + 4 + 8 + 8 + 1;

}  // namespace

void MetadataTree::Copy(const Metadata& source, Metadata& destination) {
    std::vector<std::pair<const Metadata*, Metadata*>> pending{{&source, &destination}};
    while (!pending.empty()) {
        const auto [from, to] = pending.back();
        pending.pop_back();
        for (const auto& [key, value] : from->entries) {
            MetadataObject& copy = to->entries.try_emplace(to->entries.end(), key)->second;
            copy.text = value.text;
            copy.integer = value.integer;
            copy.floating = value.floating;
            if (value.nested != nullptr) {
                copy.nested = new Metadata;
                pending.emplace_back(value.nested, copy.nested);
            }
        }
    }
}

bool MetadataTree::SlotsEqual(const MetadataObject& left, const MetadataObject& right) {
    return left.text == right.text && left.integer == right.integer && left.floating == right.floating &&
           (left.nested == nullptr) == (right.nested == nullptr);
}

bool MetadataTree::Equal(const Metadata& left, const Metadata& right) {
    std::vector<std::pair<const Metadata*, const Metadata*>> pending{{&left, &right}};
    while (!pending.empty()) {
        const auto [a, b] = pending.back();
        pending.pop_back();
        if (a->entries.size() != b->entries.size()) {
            return false;
        }
        for (const auto& [key, value] : a->entries) {
            const auto other = b->entries.find(key);
            if (other == b->entries.end() || !SlotsEqual(value, other->second)) {
                return false;
            }
            if (value.nested != nullptr) {
                pending.emplace_back(value.nested, other->second.nested);
            }
        }
    }
    return true;
}

// Chains the maps through their links: a destructor must not need memory.
void MetadataTree::Destroy(Metadata* tree) noexcept {
    while (tree != nullptr) {
        Metadata* current = std::exchange(tree, tree->link);
        for (auto& [key, value] : current->entries) {
            if (value.nested != nullptr) {
                value.nested->link = tree;
                tree = std::exchange(value.nested, nullptr);
            }
        }
        delete current;
    }
}

void MetadataTree::DestroyNested(Metadata& map) noexcept {
    for (auto& [key, value] : map.entries) {
        Destroy(std::exchange(value.nested, nullptr));
    }
}

// Walks a form before anything is built from it, and puts the reader back: what claims more than there is
// fails here. Needs 4 bytes of memory for a level of at least 29 bytes.
void MetadataTree::Check(EndianBinaryReader& reader, bool object) {
    const std::shared_ptr<IStream> stream = reader.BaseStream();
    if (stream == nullptr || !stream->CanSeek()) {
        return;
    }
    const std::int64_t start = reader.Position();
    std::vector<std::int32_t> remaining;
    const bool nested = object && skipSlots(reader);
    if (!object || nested) {
        remaining.push_back(readCount(reader));
    }
    while (!remaining.empty()) {
        if (remaining.back() == 0) {
            remaining.pop_back();
            continue;
        }
        --remaining.back();
        skipText(reader);
        if (skipSlots(reader)) {
            remaining.push_back(readCount(reader));
        }
    }
    reader.Seek(start, Origin::Begin);
}

std::int32_t MetadataTree::readCount(EndianBinaryReader& reader) {
    const std::int32_t count = std::max(0, reader.ReadInt32());
    const std::int64_t needed = count * MinEntrySize;
    if (needed > reader.Length() - reader.Position()) {
        skip(reader, needed);
    }
    return count;
}

// Reading nothing into nowhere fails as every read that exceeds the stream, in the reader's words.
void MetadataTree::skip(EndianBinaryReader& reader, std::int64_t count) {
    if (count < 0 || count > reader.Length() - reader.Position()) {
        reader.Read(static_cast<unsigned char*>(nullptr),
                    static_cast<int>(std::clamp<std::int64_t>(count, INT_MIN, INT_MAX)));
    }
    reader.Seek(count, Origin::Current);
}

void MetadataTree::skipText(EndianBinaryReader& reader) {
    skip(reader, reader.ReadInt32());
}

bool MetadataTree::skipSlots(EndianBinaryReader& reader) {
    skipText(reader);
    skip(reader, 16);
    return reader.ReadBoolean();
}

void MetadataTree::Read(EndianBinaryReader& reader, Metadata& map) {
    std::vector<std::pair<Metadata*, std::int32_t>> levels{{&map, readCount(reader)}};
    std::string key;
    while (!levels.empty()) {
        auto& [level, remaining] = levels.back();
        if (remaining == 0) {
            levels.pop_back();
            continue;
        }
        --remaining;
        reader.Read(key, reader.ReadInt32());
        auto [entry, isNew] = level->entries.try_emplace(key);
        if (!isNew) {
            entry->second = MetadataObject();
        }
        if (ReadSlots(reader, entry->second)) {
            entry->second.nested = new Metadata;
            levels.emplace_back(entry->second.nested, readCount(reader));
        }
    }
}

bool MetadataTree::ReadSlots(EndianBinaryReader& reader, MetadataObject& object) {
    reader.Read(object.text, reader.ReadInt32());
    object.integer = reader.ReadInt64();
    object.floating = reader.ReadDouble();
    return reader.ReadBoolean();
}

void MetadataTree::Write(EndianBinaryWriter& writer, const Metadata& map) {
    std::vector<std::pair<const Metadata*, std::map<std::string, MetadataObject>::const_iterator>> levels;
    const auto open = [&](const Metadata& level) {
        writer.Write(static_cast<int>(level.entries.size()));
        levels.emplace_back(&level, level.entries.begin());
    };
    open(map);
    while (!levels.empty()) {
        auto& [level, entry] = levels.back();
        if (entry == level->entries.end()) {
            levels.pop_back();
            continue;
        }
        const auto& [key, value] = *entry++;
        writeText(writer, key);
        WriteSlots(writer, value);
        if (value.nested != nullptr) {
            open(*value.nested);
        }
    }
}

void MetadataTree::WriteSlots(EndianBinaryWriter& writer, const MetadataObject& object) {
    writeText(writer, object.text);
    writer.Write(object.integer);
    writer.Write(object.floating);
    writer.Write(object.nested != nullptr);
}

void MetadataTree::writeText(EndianBinaryWriter& writer, const std::string& text) {
    writer.Write(static_cast<int>(text.size()));
    writer.Write(text);
}

MetadataObject::MetadataObject(const MetadataObject& other) : MetadataObject() {
    copy(other);
}

MetadataObject::MetadataObject(EndianBinaryReader* reader) : MetadataObject() {
    MetadataTree::Check(*reader, true);
    if (MetadataTree::ReadSlots(*reader, *this)) {
        nested = new Metadata;
        MetadataTree::Read(*reader, *nested);
    }
}

MetadataObject::~MetadataObject() {
    MetadataTree::Destroy(nested);
}

MetadataObject& MetadataObject::operator=(const MetadataObject& other) {
    if (this != &other) {
        copy(other);
    }
    return *this;
}

// Complete before the old is dropped: the other may be a part of this object's nested map.
void MetadataObject::copy(const MetadataObject& other) {
    std::unique_ptr<Metadata> nestedCopy(other.nested != nullptr ? new Metadata(*other.nested) : nullptr);
    std::string textCopy = other.text;
    integer = other.integer;
    floating = other.floating;
    text.swap(textCopy);
    MetadataTree::Destroy(std::exchange(nested, nestedCopy.release()));
}

MetadataObject& MetadataObject::operator=(short value) {
    integer = value;
    return *this;
}

MetadataObject& MetadataObject::operator=(int value) {
    integer = value;
    return *this;
}

MetadataObject& MetadataObject::operator=(std::int64_t value) {
    integer = value;
    return *this;
}

MetadataObject& MetadataObject::operator=(float value) {
    floating = value;
    return *this;
}

MetadataObject& MetadataObject::operator=(double value) {
    floating = value;
    return *this;
}

MetadataObject& MetadataObject::operator=(const std::string& value) {
    text = value;
    return *this;
}

MetadataObject& MetadataObject::operator=(const Metadata& value) {
    Metadata* fresh = new Metadata(value);
    MetadataTree::Destroy(std::exchange(nested, fresh));
    return *this;
}

MetadataObject::operator Metadata&() {
    if (nested == nullptr) {
        nested = new Metadata;
    }
    return *nested;
}

bool MetadataObject::operator==(const MetadataObject& other) const {
    return MetadataTree::SlotsEqual(*this, other) &&
           (nested == nullptr || MetadataTree::Equal(*nested, *other.nested));
}

void MetadataObject::ToPacketBuffer(EndianBinaryWriter* writer) const {
    MetadataTree::WriteSlots(*writer, *this);
    if (nested != nullptr) {
        MetadataTree::Write(*writer, *nested);
    }
}

Metadata::Metadata(const Metadata& other) : Metadata() {
    MetadataTree::Copy(other, *this);
}

Metadata::Metadata(EndianBinaryReader* reader) : Metadata() {
    MetadataTree::Check(*reader, false);
    MetadataTree::Read(*reader, *this);
}

Metadata& Metadata::operator=(const Metadata& other) {
    Metadata fresh(other);
    swap(fresh);
    return *this;
}

Metadata::~Metadata() {
    MetadataTree::DestroyNested(*this);
}

MetadataObject& Metadata::operator[](const std::string& key) {
    return entries[key];
}

bool Metadata::ContainsKey(const std::string& key) const {
    return entries.contains(key);
}

void Metadata::RemoveKey(const std::string& key) {
    entries.erase(key);
}

std::string Metadata::text(const std::string& key) const {
    const auto entry = entries.find(key);
    return entry != entries.end() ? entry->second.text : std::string();
}

bool Metadata::operator==(const Metadata& other) const {
    return MetadataTree::Equal(*this, other);
}

void Metadata::ToPacketBuffer(EndianBinaryWriter* writer) const {
    MetadataTree::Write(*writer, *this);
}

}  // namespace Mivra::Common
