#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "mivra/codecs/h264/NalUnitTypes.h"
#include "mivra/codecs/h264/ParameterSets.h"
#include "mivra/codecs/h264/SeiPayloadTypes.h"
#include "mivra/common/buffers/PacketBuffer.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/model/Rational.h"
#include "mivra/common/runtime/Export.h"

namespace Mivra::Codecs::H264 {

/// The configuration of an H.264 stream (ITU-T H.264, ISO/IEC 14496-15): reads the parameter sets from
/// private data, answers what they say, edits and writes them, and converts private data and access units
/// between Annex B and the length-prefixed form. An object belongs to one thread at a time; the static
/// helpers may be called from any thread. Data pointers are borrowed for the call, sizes and offsets are in
/// bytes, and whatever the input, no byte outside of it is read.
class MIVRA_API H264ConfigurationParser {
public:
    /// Units as (first byte, size), header byte included, start code or length excluded.
    using UnitList = std::vector<std::pair<unsigned char*, int>>;

    H264ConfigurationParser() = default;
    virtual ~H264ConfigurationParser() = default;

    /// Forgets the last result, then reads the parameter sets. The first byte chooses the form:
    /// - 0, Annex B: the first sequence and the first picture parameter set. The result is 1, whatever they
    ///   say: a missing or malformed set stays zeroed.
    /// - 1, an AVC decoder configuration record: likewise.
    /// - else units without start codes, every set among them in turn: with flags 0 or below one unit, which
    ///   takes the whole buffer; above 0 units behind three bytes each, of which only the third counts: the
    ///   length, 0 for the rest. Emulation prevention is taken out of the whole buffer first. The result is
    ///   1, or -1 at the first set that is malformed, which stays zeroed, or unit that is cut off.
    /// -1 also for null and a size below 1. A picture parameter set is read in the light of the sequence
    /// parameter set before it. A set with more than zeros behind its trailing bits is malformed, except that
    /// a picture parameter set of Baseline, Main or Extended may have stray bits behind its last element.
    /// Pointer and size are kept, and never read through again.
    int Parse(unsigned char* data, int size, int flags);

    const SPS264struct& GetSps() const { return sps; }
    const PPS264struct& GetPps() const { return pps; }
    /// profile_idc and level_idc.
    int GetProfile() const { return sps.profile_idc; }
    int GetLevel() const { return sps.level_idc; }
    int GetSpsId() const { return sps.seq_parameter_set_id; }
    int GetPpsId() const { return pps.pic_parameter_set_id; }
    /// The sequence parameter set that the picture parameter set names.
    int GetPpsSpsId() const { return pps.seq_parameter_set_id; }
    /// Luma samples behind the cropping; 0 when the cropping leaves none, and before a sequence parameter set
    /// was read: one whose profile_idc is 0, which no profile has, counts as none, here and in editing.
    int GetWidth() const;
    int GetHeight() const;
    /// Sample aspect ratio (E.2.1, Table E-1); 0/0 where none is told.
    Common::Rational GetAspectRatio() const;
    /// Frames a second, time_scale over twice num_units_in_tick, a well-known rate exactly; 0/0 where none is
    /// told.
    Common::Rational GetFrameRate() const;
    /// Bits a second of the first and of the fastest schedule of the HRDs (NAL before VCL); 0 where none is
    /// told.
    std::int64_t GetBitrate() const;
    std::int64_t GetMaxBitrate() const;
    /// profile_idc, constraint byte and level_idc as 0xPPCCLL.
    int GetProfileLevel() const;
    /// The depth that TryGetReorderingQueueDepth() gives, told or estimated.
    int GetReorderingQueueDepth() const;
    /// True when the stream tells how many frames may be reordered; false when *depth is 0 for an intra-only
    /// profile, or an estimate from the level.
    bool TryGetReorderingQueueDepth(int* depth) const;
    /// Whether a decoder for 4:2:0 of 8 bits up to High takes the stream; logs what it looked at.
    bool IsCudaCompatible() const;

    // Without a sequence parameter set all three are a GeneralException.

    /// Crops so many luma samples from each side, in place of any earlier cropping. What is no multiple of
    /// the crop unit, negative or leaves no picture is a GeneralException, and nothing changes.
    void SetCrop(int left, int right, int top, int bottom);
    /// The sample aspect ratio, by Table E-1 where it is there, else extended; a VUI is added where none was.
    /// Parts outside 1..65535 are a GeneralException, and nothing changes; 0/0 takes the ratio away.
    void SetAspectRatio(Common::Rational ratio);
    /// Appends the sequence parameter set to the buffer as one unit: header byte, emulation prevention, no
    /// start code. GeneralException when it does not fit; the buffer is then as before.
    void ToPacketBuffer(Common::PacketBuffer* buffer) const;

    // Private data. No memory is std::bad_alloc, and nothing changes; what is refused is logged.

    /// A configuration record becomes the start-code form; everything else is left as it is. False when the
    /// record is malformed or holds no set; the type is then as before.
    static bool ConvertPrivateDataToAnnexB(Common::MediaType& type);
    /// Private data that is no configuration record becomes one. False as above.
    static bool ConvertPrivateDataToAvc(Common::MediaType& type);
    /// Replaces the type's private data by a configuration record of the given sets (length size 4): of the
    /// units of an Annex B buffer, of one set of each kind, or of lists. False, and nothing changes, when
    /// there is no whole sequence parameter set, an empty set, or more or longer sets than a record holds.
    /// The picture parameter set may be missing (size 0). The data may be the type's own.
    static bool GenerateCodecPrivateData(Common::MediaType& type, unsigned char* data, int size);
    static bool GenerateCodecPrivateData(Common::MediaType& type, unsigned char* sps, int spsSize,
                                         unsigned char* pps, int ppsSize);
    static bool GenerateCodecPrivateData(Common::MediaType& type, const UnitList& spsList,
                                         const UnitList& ppsList);
    /// The same in Annex B form, each unit behind a start code of four bytes.
    static bool GenerateAnnexBCodecPrivateData(Common::MediaType& type, const UnitList& spsList,
                                               const UnitList& ppsList);
    /// The first, or all, sequence and picture parameter sets of private data in either form; they point into
    /// the data. What is not there is null and 0. False when the data is malformed or holds no sequence
    /// parameter set.
    static bool FindSpsPpsInInitString(unsigned char* data, int size, unsigned char*& sps, int& spsSize,
                                       unsigned char*& pps, int& ppsSize);
    static bool FindSpsPpsInInitString(unsigned char* data, int size, UnitList& spsList, UnitList& ppsList);

    // Packets. From in's position to its actual size; out is appended to, takes in's attributes, and is as
    // before when the result is false: malformed input (no start code in front, or a wrong length), or too
    // little room. Sets are in Annex B form; null and 0 for none.

    /// Length prefixes of lengthSize (1 to 4) bytes become start codes of four bytes, empty units are left
    /// out. With sets, the first slice of an IDR picture that has none gets them in front, or those of the
    /// one kind that it lacks; start codes then have three bytes but for the first unit and parameter sets
    /// (B.1.2). Unlike h264_mp4toannexb each packet is judged by itself, and so is each of several pictures
    /// in one; and nothing gets between the slices of a picture.
    static bool ConvertToAnnexBBitstream(Common::PacketBuffer* in, Common::PacketBuffer* out, int lengthSize);
    static bool ConvertToAnnexBBitstream(Common::PacketBuffer* in, Common::PacketBuffer* out, int lengthSize,
                                         const unsigned char* sets, int setsSize);
    /// Start codes become length prefixes; units of types 7 and 8 are left out on request. A unit too long
    /// for its prefix is malformed.
    static bool ConvertToAvcBitstream(unsigned char* data, int size, int lengthSize,
                                      Common::PacketBuffer* out, bool dropParameterSets);
    /// One form of everything: start codes of four bytes without padding, and no filler data. Of the
    /// delimiters of an access unit the first is kept, in front; none is added. A parameter set that repeats
    /// the last one of its id in the same access unit is left out, but for picture parameter sets behind a
    /// sequence parameter set that is new. A key frame (as below) without sets of a kind gets the given ones:
    /// sequence parameter sets, with their extensions, behind the delimiter, picture parameter sets behind
    /// the sequence parameter sets.
    static bool RefineAnnexBBitstream(Common::PacketBuffer* in, Common::PacketBuffer* out,
                                      const unsigned char* sets, int setsSize);
    /// Whether the access unit (Annex B) is one to begin at: IDR, or with a recovery point message whose
    /// recovery_frame_cnt is 0 (with more, what a decoder shows at first is broken); and whether other
    /// pictures refer to it. Looks no further than the first slice. All false when there is none.
    static bool DetectFrameType(Common::PacketBuffer* packet, bool& keyFrame, bool& reference);
    /// Offset of the header byte of the first unit of the type in Annex B data, -1 for none.
    static int FindNalUnit(unsigned char* data, int size, NalUnitTypes type);
    /// Offset of the first start code, and its length: 3, or 4 with a zero in front; -1 and 0 for none.
    static int FindNextStartCode(unsigned char* data, int size, int& codeLength);
    /// Where the first access unit (7.4.1.2.3) begins at or behind from that is a key frame as above: offset
    /// of its first start code or length prefix. Data is walked from its beginning, which is that of a unit;
    /// length size 0 for Annex B. False and -1 for none.
    static bool FindVideoStart(unsigned char* data, int size, int from, int lengthSize, int& offset);
    /// The first message of the type in front of the first slice (Annex B), its payload without emulation
    /// prevention. A message that promises more than there is ends its unit.
    static std::optional<std::vector<unsigned char>> FindSei(Common::PacketBuffer* packet,
                                                             SeiPayloadTypes type);
    /// Adds a message in a unit of its own in front of the first slice, in place; a buffering period, which
    /// has to come first, in front of the other messages. False, and nothing changed, without slice or room.
    static bool InsertSei(Common::PacketBuffer* packet, SeiPayloadTypes type, const unsigned char* payload,
                          int size);
    /// One line a unit, for logs, each with its line feed: "21: SliceIdr, 5 bytes, ref 3, I", the offset of
    /// the header byte, nal_ref_idc and, of slices, slice_type. Length size 0 for Annex B.
    static std::string PrintNalUnits(unsigned char* data, int size, int lengthSize);
    static bool IsSpsEqual(const SPS264struct& left, const SPS264struct& right);
    static bool IsPpsEqual(const PPS264struct& left, const PPS264struct& right);

    // Bits.

    /// ue(v) at *data and *bitPosition (0 is the most significant bit of the byte), moving all three. A code
    /// that is cut off or has over 32 zeros in front sets *bytesLeft to -1 and gives 0. Of a number of 2^31
    /// or more, which no syntax element has that is read with this, the lower 32 bits come back, as an int.
    static int ConvertExpGolomb2Int(unsigned char** data, int* bytesLeft, int* bitPosition);
    /// Emulation prevention (7.3.1, 7.4.1.1) taken out of, or put into, a unit. out is new memory of malloc()
    /// that the caller frees; false and null for a negative size, null data or no memory.
    static bool RemoveForbiddenSequenceEmulation(const unsigned char* in, int size, unsigned char*& out,
                                                 int& outSize);
    static bool ApplyForbiddenSequenceEmulation(const unsigned char* in, int size, unsigned char*& out,
                                                int& outSize);

protected:
    /// u(n) of 0 to 32 bits and se(v), as ConvertExpGolomb2Int().
    static int convertBits2Int(unsigned char** data, int* bytesLeft, int* bitPosition, int count);
    static int convertSignedExpGolomb2Int(unsigned char** data, int* bytesLeft, int* bitPosition);
    /// rbsp_trailing_bits() (7.3.2.11) stand here, with nothing but zero bytes behind them.
    static bool checkRbspTrailingBits(unsigned char* data, int bytesLeft, int bitPosition);

private:
    static bool findSpsPps(unsigned char* data, int size, unsigned char*& sps, int& spsSize,
                           unsigned char*& pps, int& ppsSize);
    int getChromaArrayType() const;
    int getCropUnitX() const;
    int getCropUnitY() const;
    bool hasSps() const { return sps.profile_idc != 0; }
    void requireSps(const char* operation) const;
    /// Luma samples in front of the cropping.
    std::int64_t codedWidth() const;
    std::int64_t codedHeight() const;
    int parseUnits(bool prefixed);
    bool parseSet(std::span<const unsigned char> unit);

    static constexpr unsigned char DefaultSpsHeader = 0x67;  // nal_ref_idc 3

    SPS264struct sps;
    unsigned char spsHeader = DefaultSpsHeader;
    PPS264struct pps;
    unsigned char* input = nullptr;
    int inputSize = 0;
};

}  // namespace Mivra::Codecs::H264
