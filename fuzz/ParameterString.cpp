// The parameter string of a media type: what is read writes a string that reads and writes the same again.

#include <string>

#include "fuzz/BinaryForm.h"
#include "mivra/common/model/MediaType.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Mivra::Common::MediaType;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const MediaType type = MediaType::FromParameterString(text);
    const std::string written = type.ToParameterString();
    const MediaType again = MediaType::FromParameterString(written);
    Mivra::Fuzz::Require(again.ToParameterString().size() <= written.size() + 64);
    Mivra::Fuzz::Require(again.ContentType() == type.ContentType());
    Mivra::Fuzz::Require(again.Bitrate() == type.Bitrate());
    type.ToString();
    type.ToBucketMediaType();
    return 0;
}
