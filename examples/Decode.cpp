// Decodes the AAC of an ADTS file and says how much sound there is in it: Decode FILE

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "mivra/mivra.h"

using namespace Mivra;

int main(int argc, char** argv) {
    MivraCommonInitialize();
    std::ifstream file(argc > 1 ? argv[1] : "", std::ios::binary);
    const std::vector<unsigned char> bytes(std::istreambuf_iterator<char>(file), {});
    Common::MediaType type;  // the rest stands in the stream
    type.ContentType() = Common::ContentType_t::Audio;
    type.CodecId() = Common::Codec_t::AAC;
    auto decoder = Media::DecoderFactory::Create(&type, nullptr, nullptr);
    double seconds = 0;
    const auto readAll = [&] {
        while (Common::PacketBuffer* frame = decoder->Read()) {
            seconds += static_cast<double>(frame->Duration()) / 1e7;
            frame->Release();  // back to the decoder's pool
        }
    };
    for (std::size_t at = 0; decoder->IsUsable() && at + 7 < bytes.size();) {
        const unsigned char* header = &bytes[at];
        const int length = (header[3] & 3) << 11 | header[4] << 3 | header[5] >> 5;
        const int left = static_cast<int>(bytes.size() - at);
        Common::PacketBuffer* packet = Media::MediaGlobal::LockBuffer(8192);
        packet->Append(header, std::clamp(length, 7, left));
        at += static_cast<std::size_t>(packet->ActualSize());
        decoder->Write(packet);
        packet->Release();
        readAll();
    }
    decoder->Drain();
    readAll();
    std::cout << seconds << " s: " << decoder->GetOutputMediaType().ToString() << '\n';
    decoder.reset();
    MivraCommonShutdown();
}
