// Decodes a JPEG file and says what is in it: Decode FILE

#include <fstream>
#include <iostream>
#include <iterator>

#include "mivra/mivra.h"

using namespace Mivra;

int main(int argc, char** argv) {
    MivraCommonInitialize();
    std::ifstream file(argc > 1 ? argv[1] : "", std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    auto* packet = new Common::PacketBuffer(bytes.data(), static_cast<int>(bytes.size()));
    Common::MediaType type;  // the rest stands in the stream
    type.ContentType() = Common::ContentType_t::Video;
    type.CodecId() = Common::Codec_t::MJPEG;
    auto decoder = Media::DecoderFactory::Create(&type, nullptr, nullptr);
    decoder->Write(packet);  // a film: packet by packet, reading in between
    packet->Release();
    decoder->Drain();
    while (Common::PacketBuffer* frame = decoder->Read()) {
        std::cout << decoder->GetOutputMediaType().ToString() << ": " << frame->ActualSize() << " bytes\n";
        frame->Release();  // back to the decoder's pool
    }
    decoder.reset();
    MivraCommonShutdown();
}
