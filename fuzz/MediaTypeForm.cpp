// The binary form of a media type.

#include "fuzz/BinaryForm.h"
#include "mivra/common/model/MediaType.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Mivra::Fuzz::BinaryFormRoundTrip<Mivra::Common::MediaType>(data, size);
    return 0;
}
