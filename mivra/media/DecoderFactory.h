#pragma once

#include <memory>

#include "mivra/common/runtime/Export.h"
#include "mivra/media/IDecoder.h"

namespace Mivra::Media {

/// Chooses the engine of a decoder. No state; any thread.
class MIVRA_API DecoderFactory {
public:
    /// Without parameters, a record with the defaults. Automatic takes the operating system's engine when it
    /// is usable, else FFmpeg's; every other choice is returned as it is, so the caller asks IsUsable().
    /// Empty for frameworks that have no engine. std::bad_alloc is the only exception.
    static std::shared_ptr<IDecoder> Create(Common::MediaType* input, Common::MediaType* output,
                                            DecoderParameters* parameters);

private:
    DecoderFactory() = default;
};

}  // namespace Mivra::Media
