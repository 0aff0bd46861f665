#pragma once

// Tables of ISO/IEC 14496-3 by their indices: samplingFrequencyIndex (Table 1.18), and the channels of a
// channelConfiguration (Table 1.19). 0: none.

namespace Mivra::Fuzz {

constexpr int kRates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                            16000, 12000, 11025, 8000,  7350,  0,     0,     0};
constexpr int kChannels[16] = {0, 1, 2, 3, 4, 5, 6, 8};

}  // namespace Mivra::Fuzz
