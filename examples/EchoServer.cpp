// Sends back what comes to a TCP port, until its own input ends: EchoServer PORT

#include <cstdlib>
#include <iostream>

#include "mivra/mivra.h"

using namespace Mivra;
using Client = Transport::NetClientContext;

class Echo : public Transport::NetNotitications {
    Transport::NetTransport& engine;

public:
    explicit Echo(Transport::NetTransport& transport) : engine(transport) {}
    void OnClientConnected(Client*) override {}
    void OnClientAccepted(Client*) override {}
    void OnClientDisconnecting(Client*) override {}
    void OnDataReceived(Client* client, Common::PacketBuffer* packet) override {
        engine.SendAsync(client->ClientId(), packet);  // the packet itself: nothing is copied
    }
    void OnSendCompleted(Client*, Common::PacketBuffer*) override {}
    void OnClientReleased(Client*) override {}
};

int main(int argc, char** argv) {
    MivraCommonInitialize();
    Transport::SelectTransport engine;
    engine.SetAllocator(65536, 100);  // bytes and number of the buffers to receive into
    auto* echo = new Echo(engine);
    echo->AddRef();
    if (argc > 1 && engine.Start() && engine.Listen(nullptr, std::atoi(argv[1]), echo, nullptr)) {
        std::cout << "listening" << std::endl;
        while (std::cin.get() != EOF)
            continue;
    }
    engine.Shutdown();
    echo->Release();
    MivraCommonShutdown();
}
