#include "tools/mivra/MediaCopy.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "mivra/common/runtime/GeneralException.h"
#include "tools/mivra/H264Sets.h"
#include "tools/mivra/Interrupt.h"
#include "tools/mivra/MediaRuntime.h"
#include "tools/mivra/Muxer.h"
#include "tools/mivra/OutputFormat.h"
#include "tools/mivra/PacketFlags.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/RelayFiles.h"
#include "tools/mivra/Rescale.h"

namespace Mivra::Tool {
namespace {

using Common::MediaType;

/// How far is looked for the first packets of the streams that are transformed.
constexpr std::size_t kMostWaiting = 500;

class MediaCopy {
public:
    MediaCopy(const MediaCopyOptions& what, Console& where)
        : options(what),
          console(where),
          input(what.input),
          output(what.output, *findOutputFormat(what.output), stop) {}

    ExitCode Run() {
        input.Open();
        makeTransforms();
        readFirstPackets();
        begin();
        for (const Packet& packet : waiting) {
            write(packet);
        }
        waiting.clear();
        while (readOn()) {
            write(take());
        }
        check(output.Finish(), guessed);
        if (refused) {
            console.Error({"the input tells no times", options.input, "an .mp4 can do without"});
            return ExitCode::CannotOpen;
        }
        if (guessed) {
            console.Warning(options.input + " tells no times; pictures are timed in the order of decoding");
        }
        if (damage.empty()) {
            damage = input.Damage();
        }
        if (!damage.empty() && !Interrupt::IsRequested()) {
            console.Error(
                {"the input is damaged: " + damage, options.input, "what could be read is written"});
            return ExitCode::Damaged;
        }
        return ExitCode::Done;
    }

private:
    struct Stream {
        std::unique_ptr<PacketTransform> transform;
        Packet first;
        std::int64_t shift = kUnsetTime;  // of packets without a presentation time
        bool reordered = false;           // by what it tells
    };

    void makeTransforms() {
        streams.resize(static_cast<std::size_t>(input.StreamCount()));
        for (int i = 0; i < input.StreamCount(); ++i) {
            Stream& stream = streams[static_cast<std::size_t>(i)];
            stream.transform = options.transform(input.Type(i));
            stream.reordered =
                input.Type(i).CodecId() == Common::Codec_t::H264 && h264ReorderingDepth(input.Type(i)) > 0;
            toSee += stream.transform != nullptr ? 1 : 0;
        }
        if (toSee == 0) {
            throw ProblemError(ExitCode::CannotOpen, {"the input has " + options.wanted, options.input,
                                                      "'mivra probe' tells what is in it"});
        }
    }

    bool readOn() { return !Interrupt::IsRequested() && input.Read() == Demuxer::Result::Packet; }

    /// A raw stream has no times. Its first pictures would be due before the beginning, and so be hidden, for
    /// the sake of those that are reordered: it begins at 0 instead.
    Packet take() {
        Packet packet = copyPacket(input);
        std::int64_t& shift = streams[static_cast<std::size_t>(packet->StreamIndex())].shift;
        if (packet->Pts() == kUnsetTime && packet->Dts() != kUnsetTime) {
            shift = shift == kUnsetTime ? std::max<std::int64_t>(-packet->Dts(), 0) : shift;
            packet->Dts() += shift;
        }
        return packet;
    }

    void readFirstPackets() {
        while (toSee > 0 && waiting.size() < kMostWaiting && readOn()) {
            waiting.push_back(take());
            Stream& stream = streams[static_cast<std::size_t>(waiting.back()->StreamIndex())];
            if (stream.transform != nullptr && !stream.first) {
                stream.first = waiting.back();
                --toSee;
            }
        }
    }

    void begin() {
        std::vector<MediaType> types;
        for (int i = 0; i < input.StreamCount(); ++i) {
            Stream& stream = streams[static_cast<std::size_t>(i)];
            types.push_back(stream.transform != nullptr
                                ? stream.transform->Begin(input.Type(i), stream.first.get())
                                : input.Type(i));
        }
        output.Begin(types);
        if (!output.LeftOut().empty()) {
            console.Warning(output.LeftOut());
        }
    }

    void write(const Packet& packet) {
        const int index = packet->StreamIndex();
        Stream& stream = streams[static_cast<std::size_t>(index)];
        if (!output.Takes(index)) {
            return;
        }
        Packet out = stream.transform != nullptr ? transform(*stream.transform, packet) : packet;
        if (!out) {
            noteDamage("a packet of stream " + std::to_string(index) + " is malformed");
            return;
        }
        setPacketFlags(*out.get(), packetFlags(*packet.get()));
        const bool untimed = out->Pts() == kUnsetTime && output.HasTimes();
        guessed = guessed || (untimed && stream.reordered);
        check(output.Write(index, *out.get()), untimed);
    }

    /// Where the stream changes, the transform begins anew, and the output is told of what comes then.
    static Packet transform(PacketTransform& by, const Packet& packet) {
        if (packet->NewMediaType() == nullptr) {
            return by.Apply(packet);
        }
        auto changed = std::make_unique<MediaType>(by.Begin(*packet->NewMediaType(), packet.get()));
        Packet out = by.Apply(packet);
        if (out) {
            delete std::exchange(out->NewMediaType(), changed.release());
        }
        return out;
    }

    void check(Muxer::Result result, bool untimed) {
        if (result == Muxer::Result::Failed) {
            throw ProblemError(ExitCode::WriteFailed, output.Failure());
        }
        if (result == Muxer::Result::BadPacket && untimed) {
            refused = true;
        } else if (result == Muxer::Result::BadPacket) {
            noteDamage(output.ErrorText());
        }
    }

    void noteDamage(const std::string& text) {
        if (damage.empty()) {
            damage = text;
        }
    }

    const MediaCopyOptions& options;
    Console& console;
    StopSignal stop;
    Demuxer input;
    Muxer output;
    std::vector<Stream> streams;
    std::vector<Packet> waiting;  // read before the output could begin
    int toSee = 0;                // transformed streams without a packet yet
    std::string damage;
    bool guessed = false;  // the order of display, where the input tells no times
    bool refused = false;  // a packet, for want of its time
};

}  // namespace

ExitCode copyMedia(const MediaCopyOptions& options, Console& console) {
    if (const auto wrong = checkRelayFiles({options.input}, {options.output}, "")) {
        console.Error(*wrong);
        return ExitCode::Usage;
    }
    const Interrupt interrupt;
    try {
        const MediaRuntime runtime;
        return MediaCopy(options, console).Run();
    } catch (const ProblemError& error) {
        console.Error(error.problem);
        return error.code;
    } catch (const Common::GeneralException& error) {
        console.Error({error.what(), options.input, ""});
        return ExitCode::Failed;
    }
}

}  // namespace Mivra::Tool
