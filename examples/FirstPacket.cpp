#include <iostream>

#include "mivra/mivra.h"

using namespace Mivra;

int main() {
    MivraCommonInitialize();
    Common::PacketBuffer* packet = Media::MediaGlobal::LockBuffer(1500);  // one reference, ours
    Common::EndianBinaryWriter writer(packet);
    writer.WriteBits(5, 3);
    writer.WriteUnsignedExpGolomb(41);
    packet->Position() = packet->BitPosition() = 0;
    Common::EndianBinaryReader reader(packet);
    const auto kind = reader.ReadBits(3);
    std::cout << packet->ActualSize() << " bytes: " << kind << ", " << reader.ReadExpGolomb() << '\n';
    packet->Release();  // back to its pool
    MivraCommonShutdown();
}
