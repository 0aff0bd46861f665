// Uses a little of every floor, as an application does, and prints the version that the log tells: Consumer
// LOG

#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>

#include "mivra/mivra.h"

namespace {

using Mivra::Common::MediaType;
using Mivra::Common::PacketBuffer;

// Deriving needs what the library shows beside functions: tables of virtual functions and type information.
class Sink : public Mivra::Media::IMediaSink {
public:
    ~Sink() override { destroying = true; }
    void Open() override {}
    void Start(bool) override {}
    void Stop() override {}
    void AddStream(int, MediaType*) override {}
    void PushMedia(int, PacketBuffer* sample) override { bytes += sample->ActualSize(); }

    int bytes = 0;
};

class Stream : public Mivra::Common::VersatileBufferStream {};

bool every_floor_answers() {
    using namespace Mivra;
    auto* sink = new Sink;
    sink->AddRef();
    PacketBuffer* packet = Media::MediaGlobal::LockBuffer(100);
    Common::EndianBinaryWriter(packet).Write(0x01020304);
    packet->Position() = 0;
    const bool read = Common::EndianBinaryReader(packet).ReadUInt32() == 0x01020304;
    static_cast<Media::IMediaSink*>(sink)->PushMedia(0, packet);
    packet->Release();
    const bool pushed = sink->bytes == 4 && dynamic_cast<Common::IReferenceable*>(sink) != nullptr;
    sink->Release();
    const bool typed = MediaType::FromParameterString(MediaType().ToParameterString()) == MediaType();
    const bool streamed = Stream().GetLength() == 0 && FFmpeg::FfmpegProxy::ReferenceCount() == 0;
    const bool identified = !Common::Guid::NewGuid().IsEmpty() && Network::Uri("file:///a").Path() == "/a";
    try {
        throw Common::GeneralException("%d", 7);
    } catch (const std::exception& error) {
        return read && pushed && typed && streamed && identified && error.what() == std::string("7");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string path = argv[1];
    MivraCommonInitialize();
    MivraCommonSetLog(3, std::wstring(path.begin(), path.end()).c_str());
    const bool answered = every_floor_answers();
    MivraCommonShutdown();
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    std::smatch version;
    if (!answered || !std::regex_search(text, version, std::regex("Mivra\\.Common v(\\S+) log enabled"))) {
        return 1;
    }
    std::cout << version[1] << '\n';
}
