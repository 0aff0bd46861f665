// Decodes the AAC of an ADTS file and says how much sound there is in it: Decode FILE

#include <fstream>
#include <iostream>
#include <iterator>

#include "mivra/mivra.h"

using namespace Mivra;
using Codecs::AAC::ConfigurationParser;

int main(int argc, char** argv) {
    MivraCommonInitialize();
    std::ifstream file(argc > 1 ? argv[1] : "", std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    Common::PacketBuffer all(bytes.data(), static_cast<int>(bytes.size()));
    all.ActualSize() = all.Size();
    Common::MediaType type;
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
    for (int at = ConfigurationParser::AdtsFindSync(&all, 0); decoder->IsUsable() && at >= 0;) {
        const int next = ConfigurationParser::AdtsFindSync(&all, at + 7);
        Common::PacketBuffer* packet = Media::MediaGlobal::LockBuffer(8192);
        packet->Append(&all, at, (next < 0 ? all.Size() : next) - at);
        decoder->Write(packet);
        packet->Release();
        readAll();
        at = next;
    }
    decoder->Drain();
    readAll();
    std::cout << seconds << " s: " << decoder->GetOutputMediaType().ToString() << '\n';
    decoder.reset();
    MivraCommonShutdown();
}
