#pragma once

// Streams for a cache out of the input, and what a cache must make of them, worked out the slow way.

#include <algorithm>
#include <any>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/OperationSource.h"
#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/model/MediaType.h"
#include "mivra/common/runtime/Reference.h"
#include "mivra/media/HeldPacket.h"
#include "mivra/media/SampleCache.h"

namespace Mivra::Fuzz {

using Common::PacketBuffer;
using Common::Reference;

/// Everything that a packet carries, as text.
inline std::string Describe(PacketBuffer& packet) {
    std::string text(packet.GetPointer(), static_cast<std::size_t>(packet.ActualSize()));
    for (const std::int64_t value :
         {packet.Pts(), packet.Dts(), packet.Duration(), packet.FilePosition(), packet.OperationTime(),
          std::int64_t{packet.StreamIndex()}, std::int64_t{packet.ProgramIndex()},
          std::int64_t{packet.Position()}, std::int64_t{packet.BitPosition()},
          std::int64_t{packet.Operation()}, std::int64_t{packet.KeyFrame()},
          std::int64_t{packet.CleanPoint()}, std::int64_t{packet.Discontinuity()},
          std::int64_t{packet.OneMessage()}, std::int64_t{packet.OperationFinished()},
          std::int64_t{packet.RemoteAddr().sin_port}, std::int64_t{packet.LocalAddr().sin_port},
          reinterpret_cast<std::int64_t>(packet.UserContext())}) {
        text += '/' + std::to_string(value);
    }
    text += packet.SourceId();
    for (const auto& [key, value] : packet.POIs())
        text += ',' + std::to_string(key) + '=' + std::to_string(value);
    for (const auto& [key, value] : packet.ExtraData())
        text += ';' + key + '=' + std::any_cast<std::string>(value);
    if (packet.NewMediaType() != nullptr) text += packet.NewMediaType()->ToString();
    return text;
}

/// One to four sources, each with video, sound or both, whose samples come in the order of their times.
class CacheStreams {
public:
    struct Sent {
        std::size_t source;
        std::int64_t time;  // 100 ns
        bool entry;         // key frame of video, or any sample of a source without
        std::string description;
    };

    explicit CacheStreams(OperationSource& from) : input(from) {
        const int count = between(1, 4);
        for (int i = 0; i < count; ++i) {
            const int content = between(0, 3);  // 0: sound only
            std::vector<Common::Rational> timescales;
            for (int stream = 0; stream < (content > 1 ? 2 : 1); ++stream) {
                const bool video = content > 0 && stream == 0;
                const int scale =
                    std::array{10'000'000, 90'000, 1000}[static_cast<std::size_t>(between(0, 2))];
                timescales.emplace_back(1, scale);
                streams.push_back({static_cast<std::size_t>(i), stream, video, scale,
                                   video ? between(17, 100) : between(10, 60), between(0, 50),
                                   between(5, 250), between(0, 3)});
            }
            sources.push_back({timescales, content > 0 ? 0 : -1});
        }
        duration = between(1, 4) * std::int64_t{10'000'000};
    }

    /// The next sample; where it comes from is noted in sent.
    Reference<PacketBuffer> Next() {
        Stream& stream = *std::min_element(streams.begin(), streams.end(),
                                           [](const auto& a, const auto& b) { return a.nextMs < b.nextMs; });
        const auto packet = makePacket(stream);
        const bool key = stream.video && stream.sent % stream.gop == 0;
        const std::int64_t unit = stream.scale / 1000;
        // Frames that depend on later ones are shown before those.
        const int ahead = stream.reorder == 0 || key ? stream.reorder : stream.sent % (stream.reorder + 1);
        packet->StreamIndex() = stream.index;
        packet->KeyFrame() = key || (!stream.video && stream.sent % 2 == 0);
        packet->Dts() = stream.nextMs * unit;
        packet->Pts() = (stream.nextMs + ahead * stream.stepMs) * unit;
        packet->Duration() = stream.stepMs * unit;
        const bool leads = sources[stream.source].videoStream < 0;
        sent.push_back({stream.source, (stream.nextMs + ahead * stream.stepMs) * 10'000, leads || key,
                        Describe(*packet.get())});
        stream.nextMs += stream.stepMs;
        ++stream.sent;
        return packet;
    }

    /// What a cache holds of the first `count` samples that were sent, by their numbers.
    std::vector<std::size_t> Expected(std::size_t count) const {
        std::vector<std::size_t> begins(sources.size(), kNothing);
        std::size_t leader = kNothing;
        for (const bool video : {true, false}) {  // the others begin not before it
            const std::size_t from = video || !hasVideo() ? 0 : leader;
            for (std::size_t source = 0; source < sources.size(); ++source)
                if ((sources[source].videoStream >= 0) == video)
                    begins[source] = beginOf(source, from, count);
            if (video) leader = *std::min_element(begins.begin(), begins.end());
        }
        std::vector<std::size_t> expected;
        for (std::size_t i = 0; i < count; ++i) {
            if (i >= begins[sent[i].source]) expected.push_back(i);
        }
        return expected;
    }

    int between(int low, int high) { return low + input.Small() % (high - low + 1); }

    OperationSource& input;
    std::int64_t duration;
    std::vector<Media::SampleCache::Source> sources;
    std::vector<Sent> sent;

private:
    static constexpr std::size_t kNothing = SIZE_MAX;

    bool hasVideo() const {
        return std::any_of(sources.begin(), sources.end(),
                           [](const auto& source) { return source.videoStream >= 0; });
    }

    std::size_t beginOf(std::size_t source, std::size_t from, std::size_t count) const {
        std::int64_t newest = INT64_MIN;
        for (std::size_t i = 0; i < count; ++i)
            if (sent[i].source == source) newest = std::max(newest, sent[i].time);
        for (std::size_t i = from; i < count; ++i)
            if (sent[i].source == source && sent[i].entry && newest - sent[i].time <= duration) return i;
        return kNothing;
    }

    struct Stream {
        std::size_t source;
        int index;
        bool video;
        int scale;
        int stepMs;
        std::int64_t nextMs;
        int gop;  // frames
        int reorder;
        int sent = 0;
    };

    Reference<PacketBuffer> makePacket(const Stream& stream) {
        const int size = between(1, 255) * (stream.video ? 1 + static_cast<int>(sent.size() % 16) : 1);
        auto packet = Reference<PacketBuffer>::Adopt(Media::MediaGlobal::LockBuffer(size));
        if (!packet) packet = Media::OwnedPacket::Make(size);
        packet->ActualSize() = size;
        const auto mark = static_cast<unsigned>(sent.size());
        std::fill_n(packet->GetPointer(), size, static_cast<char>(mark));
        std::memcpy(packet->GetPointer(), &mark, static_cast<std::size_t>(std::min(size, 4)));
        packet->CleanPoint() = mark % 2 == 0;
        packet->Discontinuity() = mark % 3 == 0;
        packet->OneMessage() = mark % 5 == 0;
        packet->ProgramIndex() = static_cast<int>(mark % 10);
        packet->FilePosition() = mark * std::int64_t{1'000'000'007};
        packet->Position() = static_cast<int>(mark) % (size + 1);
        packet->BitPosition() = static_cast<int>(mark % 8);
        packet->OperationTime() = mark * std::int64_t{3};
        packet->UserContext() = reinterpret_cast<void*>(static_cast<std::uintptr_t>(mark));
        if (mark % 3 != 0) packet->SourceId() = "source " + std::to_string(stream.source);
        if (mark % 7 == 0) packet->POIs()[mark % 5] = mark;
        if (mark % 11 == 0) packet->ExtraData()["SideData.1"] = std::string(mark % 40, 'x');
        if (mark % 13 == 0) packet->RemoteAddr().sin_port = 5;
        if (mark % 17 == 0) {
            packet->NewMediaType() = new Common::MediaType;
            packet->NewMediaType()->Timescale() = Common::Rational(1, stream.scale);
            packet->NewMediaType()->Width() = static_cast<int>(mark);
        }
        return packet;
    }

    std::vector<Stream> streams;
};

}  // namespace Mivra::Fuzz
