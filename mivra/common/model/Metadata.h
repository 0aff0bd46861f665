#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "mivra/common/runtime/Export.h"

namespace Mivra::Common {

class EndianBinaryReader;
class EndianBinaryWriter;
class Metadata;

/// A value of a Metadata map: a string, an integer, a double and an optional nested map at once. Nothing
/// tells which is meant: an assignment sets one slot and leaves the others, a conversion picks one.
class MIVRA_API MetadataObject {
public:
    MetadataObject() = default;
    MetadataObject(const MetadataObject& other);
    explicit MetadataObject(EndianBinaryReader* reader);
    ~MetadataObject();

    MetadataObject& operator=(const MetadataObject& other);
    MetadataObject& operator=(short value);
    MetadataObject& operator=(int value);
    MetadataObject& operator=(std::int64_t value);
    MetadataObject& operator=(float value);
    MetadataObject& operator=(double value);
    MetadataObject& operator=(const std::string& value);
    MetadataObject& operator=(const Metadata& value);

    operator std::string&() { return text; }
    operator short() const { return static_cast<short>(integer); }
    operator int() const { return static_cast<int>(integer); }
    operator std::int64_t() const { return integer; }
    operator float() const { return static_cast<float>(floating); }
    operator double() const { return floating; }
    /// The nested map, made on first use.
    operator Metadata&();

    /// All four slots; an empty nested map differs from none.
    bool operator==(const MetadataObject& other) const;
    bool operator!=(const MetadataObject& other) const { return !(*this == other); }

    void ToPacketBuffer(EndianBinaryWriter* writer) const;

private:
    friend class Metadata;
    friend class MetadataTree;

    void copy(const MetadataObject& other);

    std::string text;
    std::int64_t integer = 0;
    double floating = 0.0;
    Metadata* nested = nullptr;  // owned
};

/// An ordered map of named values, nested to any depth: the open attributes that travel with a MediaType.
/// A plain value without locks. No operation recurses on the machine stack.
class MIVRA_API Metadata {
public:
    Metadata() = default;
    Metadata(const Metadata& other);
    /// Reads the binary form. A form that does not hold what it claims is the reader's out-of-bounds failure
    /// and takes no memory beyond the size of the input; of equal keys the last wins; a negative count is an
    /// empty map.
    explicit Metadata(EndianBinaryReader* reader);
    Metadata& operator=(const Metadata& other);
    ~Metadata();

    /// Inserts a default value when the key is missing.
    MetadataObject& operator[](const std::string& key);
    bool ContainsKey(const std::string& key) const;
    void RemoveKey(const std::string& key);

    bool operator==(const Metadata& other) const;
    bool operator!=(const Metadata& other) const { return !(*this == other); }

    void ToPacketBuffer(EndianBinaryWriter* writer) const;

private:
    friend class MediaType;
    friend class MetadataObject;
    friend class MetadataTree;

    void swap(Metadata& other) noexcept { entries.swap(other.entries); }
    /// The string slot; empty for a missing key.
    std::string text(const std::string& key) const;

    std::map<std::string, MetadataObject> entries;
    Metadata* link = nullptr;  // chains the maps that an operation still has before it
};

}  // namespace Mivra::Common
