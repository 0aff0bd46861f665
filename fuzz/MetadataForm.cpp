// The binary form of metadata.

#include "fuzz/BinaryForm.h"
#include "mivra/common/model/Metadata.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Mivra::Fuzz::BinaryFormRoundTrip<Mivra::Common::Metadata>(data, size);
    return 0;
}
