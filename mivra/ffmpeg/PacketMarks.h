#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "mivra/common/buffers/PacketBuffer.h"

namespace Mivra::FFmpeg {

/// What packets say beside their times, kept until their frames come out. Numbers packets from 1. Allocates
/// nothing in the steady state.
class PacketMarks {
public:
    std::int64_t Note(Common::PacketBuffer& packet);
    /// Gives a frame what its packet said; a number that nobody knows any more changes nothing.
    void Apply(std::int64_t number, Common::PacketBuffer& frame);

private:
    struct Mark {
        std::int64_t number = 0;
        int streamIndex = 0;
        int programIndex = 0;
        bool discontinuity = false;
        std::int64_t filePosition = 0;
        std::string sourceId;
        std::map<std::int32_t, std::int64_t> pois;
    };
    static constexpr std::size_t kMarks = 256;  // more than any codec holds back

    std::array<Mark, kMarks> marks;
    std::int64_t last = 0;
};

}  // namespace Mivra::FFmpeg
