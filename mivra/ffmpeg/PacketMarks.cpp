#include "mivra/ffmpeg/PacketMarks.h"

namespace Mivra::FFmpeg {

std::int64_t PacketMarks::Note(Common::PacketBuffer& packet) {
    Mark& mark = marks[static_cast<std::size_t>(++last) % kMarks];
    mark.number = last;
    mark.streamIndex = packet.StreamIndex();
    mark.programIndex = packet.ProgramIndex();
    mark.discontinuity = packet.Discontinuity();
    mark.filePosition = packet.FilePosition();
    mark.sourceId = packet.SourceId();
    mark.pois = packet.POIs();
    return last;
}

void PacketMarks::Apply(std::int64_t number, Common::PacketBuffer& frame) {
    Mark& mark = marks[static_cast<std::size_t>(number) % kMarks];
    if (number <= 0 || mark.number != number) {
        return;
    }
    frame.StreamIndex() = mark.streamIndex;
    frame.ProgramIndex() = mark.programIndex;
    frame.Discontinuity() = mark.discontinuity;
    frame.FilePosition() = mark.filePosition;
    frame.SourceId() = mark.sourceId;
    frame.POIs() = mark.pois;
    mark.discontinuity = false;  // of several frames the first tells it
}

}  // namespace Mivra::FFmpeg
