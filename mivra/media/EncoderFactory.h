#pragma once

#include <memory>

#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Export.h"
#include "mivra/media/EncoderParameters.h"
#include "mivra/media/IEncoder.h"

namespace Mivra::Media {

/// Chooses the engine behind an encoder. No state; any thread.
class MIVRA_API EncoderFactory {
public:
    /// By the preferred framework: 0 the operating system's engine when it is usable, else FFmpeg's; 1 and 2
    /// the operating system's; 8 FFmpeg's; any other value none (an empty pointer). What is returned may be
    /// unusable: nothing is thrown for media types that an engine cannot serve. Without parameters, those of
    /// a fresh record count. The arguments are read during the call only.
    static std::shared_ptr<IEncoder> Create(Common::MediaType* input, Common::MediaType* output,
                                            EncoderParameters* parameters);

private:
    EncoderFactory() = default;
};

}  // namespace Mivra::Media
