// The smallest road of a packet: a source of ten numbered packets, a session, and a sink that prints them.

#include <future>
#include <iostream>
#include <thread>

#include "mivra/mivra.h"

using namespace Mivra;

class Counter : public Media::IMediaSource {
public:
    ~Counter() override { destroying = true; }
    void Open() override { setStateInThread(Media::MediaState::Opened); }
    void Start() override {
        Common::MediaType type = GetMediaType(0);
        onNewStream(0, 1, &type);
        setStateInThread(Media::MediaState::Started);
        producer = std::jthread([this] { produce(); });
    }
    void Stop() override {}
    int GetStreamCount() override { return 1; }
    Common::MediaType GetMediaType(int) override {
        Common::MediaType type;
        type.ContentType() = Common::ContentType_t::Binary;
        return type;
    }
    void Discard(std::map<int, bool>) override {}
    void SetDesiredOutputType(int, Common::MediaType) override {}

private:
    void produce() {
        for (int i = 1; i <= 10; ++i) {
            Common::PacketBuffer* packet = Media::MediaGlobal::LockBuffer(sizeof i);
            packet->Append(&i, sizeof i);
            packet->StreamIndex() = 0;
            onNewSample(0, packet);
            packet->Release();  // the session holds a reference of its own
        }
    }

    std::jthread producer;
};

class Printer : public Media::IMediaSink {
public:
    ~Printer() override { destroying = true; }
    void Open() override { setStateInThread(Media::MediaState::Opened); }
    void Start(bool) override {}
    void Stop() override {}
    void AddStream(int index, Common::MediaType* type) override {
        std::cout << "stream " << index << ": " << type->ToString() << '\n';
    }
    void PushMedia(int stream, Common::PacketBuffer* sample) override {
        int number = 0;
        sample->CopyTo(0, &number, sizeof number);
        std::cout << "stream " << stream << ": packet " << number << '\n';
        if (number == 10) last.set_value();
    }

    std::promise<void> last;
};

int main() {
    MivraCommonInitialize();
    auto* source = new Counter;
    auto* sink = new Printer;
    source->AddRef();
    sink->AddRef();
    Media::MediaSession session;
    session.AddSource(source);
    session.AddSink(sink);
    session.Start();
    sink->last.get_future().wait();
    session.Stop();
    source->Release();
    sink->Release();
    MivraCommonShutdown();
}
