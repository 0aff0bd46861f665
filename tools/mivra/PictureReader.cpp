#include "tools/mivra/PictureReader.h"

#include <algorithm>
#include <new>
#include <utility>

#include "mivra/common/buffers/MediaGlobal.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/StreamMapping.h"
#include "tools/mivra/TranscodeEngines.h"

namespace Mivra::Tool {
namespace {

using Common::ContentType_t;
using Common::MediaType;

bool isCover(const MediaType& type) {
    return (numberOf(type, Key::kDisposition, 0) & AV_DISPOSITION_ATTACHED_PIC) != 0;
}

/// The film, else a cover picture; -1: neither.
int choosePictures(const Demuxer& input) {
    int chosen = -1;
    for (int i = 0; i < input.StreamCount(); ++i) {
        if (input.Type(i).ContentType() == ContentType_t::Video) {
            if (!isCover(input.Type(i))) {
                return i;
            }
            chosen = chosen < 0 ? i : chosen;
        }
    }
    return chosen;
}

}  // namespace

PictureReader::PictureReader(const std::string& name) : path(name), input(name) {
    input.Open();
    stream = choosePictures(input);
    if (stream < 0) {
        throw ProblemError(ExitCode::CannotOpen,
                           {"the input has no pictures", path, "'mivra probe' tells what is in it"});
    }
    for (int i = 0; i < input.StreamCount(); ++i) {
        input.SetDiscarded(i, i != stream);
    }
    if (const PictureTurn turn(input.Type(stream)); !turn.IsNone()) {
        asked = turn;
    }
}

void PictureReader::SetSize(int wide, int high) {
    width = wide;
    height = high;
}

/// Takes what is decoded, and keeps the picture that is shown. True when a later one has come.
bool PictureReader::pass(Packet& shown, std::int64_t time) {
    while (Packet picture = Packet::Adopt(decoder->Read())) {
        if (picture->Pts() > time && shown) {
            return true;
        }
        end = picture->Pts() + std::max<std::int64_t>(1, picture->Duration());
        shown = std::move(picture);
        if (shown->Pts() > time) {
            return true;  // the first one of all
        }
    }
    return false;
}

/// What a type becomes when its pictures are turned as asked.
MediaType PictureReader::turned(MediaType type) const {
    if (asked.has_value() && asked->SwapsSides()) {
        std::swap(type.Width(), type.Height());
        type.PixelAspectRatio() = !type.PixelAspectRatio();
    }
    return type;
}

Packet PictureReader::turn(Packet picture) {
    const MediaType type = decoder->GetOutputMediaType();
    pictureType = turned(type);
    if (!asked.has_value() || !picture) {
        return picture;
    }
    const std::int64_t row = std::int64_t{type.Width()} * PictureTurn::kBytesOfPixel;
    Packet made = Packet::Adopt(Media::MediaGlobal::LockBuffer(static_cast<int>(row * type.Height())));
    if (!made) {
        throw std::bad_alloc();
    }
    asked->Apply(picture->Buffer(), type.Width(), type.Height(), numberOf(type, "Stride", row),
                 made->Buffer());
    made->ActualSize() = static_cast<int>(row * type.Height());
    made->ExtraData() = picture->ExtraData();
    pictureType.CodecMetadata().RemoveKey("Stride");
    pictureType.CodecMetadata().RemoveKey("Rows");
    pictureType.FrameSize() = made->ActualSize();
    return made;
}

Packet PictureReader::ShownAt(std::int64_t time) {
    MediaType wanted;
    wanted.PixelFormat() = static_cast<Common::PixelFormat_t>(AV_PIX_FMT_RGB24);
    wanted.Width() = width;
    wanted.Height() = height;
    decoder = makeDecoder(input.Type(stream), turned(wanted), 0, true, path);
    return turn(find(time));
}

Packet PictureReader::find(std::int64_t time) {
    if (input.CanSeek()) {
        input.SeekToKeyFrame(std::max<std::int64_t>(time, 0));
    }
    Packet shown;
    while (input.Read() == Demuxer::Result::Packet) {
        const Packet packet = copyPacket(input);
        decoder->Write(packet.get());
        if (pass(shown, time)) {
            return shown;
        }
    }
    decoder->Drain();
    return pass(shown, time) || (shown && time < end) ? shown : Packet();
}

}  // namespace Mivra::Tool
