#include "tools/mivra/TranscodeLane.h"

#include <exception>
#include <new>
#include <optional>
#include <thread>
#include <utility>

#include "tools/mivra/ContinuousTime.h"
#include "tools/mivra/PictureRate.h"
#include "tools/mivra/SampleCut.h"
#include "tools/mivra/StreamMapping.h"
#include "tools/mivra/TranscodeEngines.h"
#include "tools/mivra/WorkQueue.h"

namespace Mivra::Tool {
namespace {

using Common::MediaType;
using Common::PacketBuffer;
using Common::Reference;
using Packet = Reference<PacketBuffer>;

/// Decoded pictures that wait for the encoder.
constexpr std::size_t kMostPictures = 1;

void setTime(PacketBuffer& buffer, std::int64_t time) {
    buffer.Pts() = time;
    buffer.Dts() = time;
}

/// What the lanes with a decoder have in common: its thread.
class DecodingLane : public TranscodeLane {
public:
    DecodingLane(const MediaType& input, const LaneSettings& with, LaneEnd to)
        : settings(with),
          end(std::move(to)),
          decoder(makeDecoder(input, MediaType(), settings.threads, settings.hardware, settings.path)),
          name(describe(input)),
          raw(decoder->GetOutputMediaType()),
          encoder(raw, settings, end),
          packets(0) {}

    const MediaType& Type() const override { return encoder.Type(); }
    void Start() override {
        thread = std::thread([this] { guard([this] { decode(); }); });
    }
    void Push(PacketBuffer& packet) override {
        if (!packets.Push(Packet(&packet))) {
            end.shared->monitor.Consumed();
        }
    }
    void Finish() override {
        packets.Discard();
        if (thread.joinable()) {
            thread.join();
        }
    }

protected:
    /// A raw buffer in the order of presentation. False when no more is wanted.
    virtual bool take(Packet frame) = 0;
    /// No more comes.
    virtual void endDecoding() = 0;

    template <typename Work>
    void guard(Work work) {
        try {
            work();
        } catch (const std::bad_alloc&) {
            fail("no memory for ");
        } catch (const std::exception& error) {
            fail(std::string(error.what()) + " in ");
        }
    }
    void fail(const std::string& what) {
        end.shared->monitor.Fail(ExitCode::Failed, {what + name, settings.path, ""});
    }

    const LaneSettings settings;
    const LaneEnd end;
    const std::shared_ptr<Media::IDecoder> decoder;
    const std::string name;
    const MediaType raw;
    EncoderEnd encoder;

private:
    void decode() {
        bool wanted = true;
        bool any = false;
        while (const std::optional<Packet> packet = packets.Pop()) {
            any = true;
            if (wanted) {
                decoder->Write(packet->get());
                wanted = takeAll();
            }
            end.shared->monitor.Consumed();
        }
        if (wanted) {
            decoder->Drain();
            takeAll();
        }
        if (any && !seen && !end.shared->stop.IsRaised()) {
            end.shared->monitor.Damaged(
                {"nothing could be decoded of " + name, settings.path, "is the file damaged?"});
        }
        tellDamage();
        endDecoding();
    }

    bool takeAll() {
        while (auto frame = Packet::Adopt(decoder->Read())) {
            if (isDamaged(*frame.get())) {
                damaged += seenWhole ? 1 : 0;  // an input may begin anywhere
            } else {
                seenWhole = true;
            }
            seen = true;
            if (!take(std::move(frame))) {
                return false;
            }
        }
        return true;
    }

    void tellDamage() {
        if (!decoder->IsUsable()) {
            end.shared->monitor.Damaged(
                {"nothing here decodes what has become of " + name, settings.path, "the rest is left out"});
        }
        if (damaged > 0) {
            end.shared->monitor.Damaged({"damaged input: " + std::to_string(damaged) + " of the frames of " +
                                             name + " could not be decoded whole",
                                         settings.path, "what could be decoded is written"});
        }
    }

    WorkQueue<Packet> packets;
    std::thread thread;
    bool seen = false;
    bool seenWhole = false;
    std::int64_t damaged = 0;  // frames, behind a whole one
};

class PictureLane : public DecodingLane {
public:
    PictureLane(const MediaType& input, const LaneSettings& with, LaneEnd to)
        : DecodingLane(input, with, std::move(to)), pictures(kMostPictures) {
        if (settings.rate.num > 0) {
            rate.emplace(settings.rate, [this](PacketBuffer& picture) { encode(picture); });
        }
    }
    ~PictureLane() override { Finish(); }

    void Start() override {
        encoding = std::thread([this] {
            guard([this] { encodeAll(); });
            pictures.Discard();  // whatever happened, nobody waits for room
        });
        DecodingLane::Start();
    }
    void Finish() override {
        DecodingLane::Finish();
        pictures.Close();
        if (encoding.joinable()) {
            encoding.join();
        }
    }

protected:
    bool take(Packet picture) override {
        const TimeWindow& window = settings.window;
        const std::int64_t time = picture->Pts();
        if (window.end != kUnsetTime && time != kUnsetTime && time >= window.end) {
            return false;
        }
        if (picture->NewMediaType() != nullptr) {
            newType = std::make_unique<MediaType>(*picture->NewMediaType());
        }
        if (time != kUnsetTime && time < window.begin) {
            return true;
        }
        if (newType != nullptr && picture->NewMediaType() == nullptr) {
            picture->NewMediaType() = newType.release();
        }
        newType.reset();
        setTime(*picture.get(), shifted(time, -window.begin));
        return pictures.Push(std::move(picture));
    }
    void endDecoding() override { pictures.Close(); }

private:
    void encodeAll() {
        while (std::optional<Packet> picture = pictures.Pop()) {
            if (rate.has_value() && (*picture)->Pts() != kUnsetTime) {
                rate->Push(std::move(*picture));
            } else {
                encode(*picture->get());
            }
        }
        if (rate.has_value()) {
            rate->Finish(shifted(settings.window.end, -settings.window.begin));
        }
        encoder.Drain();
    }

    void encode(PacketBuffer& picture) {
        if (good && !encoder.Write(picture)) {
            good = false;
            pictures.Discard();
        }
    }

    WorkQueue<Packet> pictures;
    std::unique_ptr<MediaType> newType;  // of pictures that were left out
    std::optional<PictureRate> rate;
    std::thread encoding;
    bool good = true;
};

class SampleLane : public DecodingLane {
public:
    SampleLane(const MediaType& input, const LaneSettings& with, LaneEnd to)
        : DecodingLane(input, with, std::move(to)), shape(raw) {}
    ~SampleLane() override { Finish(); }

protected:
    bool take(Packet samples) override {
        const TimeWindow& window = settings.window;
        if (samples->NewMediaType() != nullptr) {
            shape = SampleShape(*samples->NewMediaType());
            newType = std::make_unique<MediaType>(*samples->NewMediaType());
        }
        const std::int64_t time = samples->Pts();
        if (window.end != kUnsetTime && time != kUnsetTime && time >= window.end) {
            return false;
        }
        const Packet kept =
            window.begin > 0 || window.end != kUnsetTime
                ? cutSamples(std::move(samples), shape, window.begin > 0 ? window.begin : time, window.end)
                : std::move(samples);
        if (!kept) {
            return true;
        }
        if (newType != nullptr && kept->NewMediaType() == nullptr) {
            kept->NewMediaType() = newType.release();
        }
        newType.reset();
        setTime(*kept.get(), shifted(kept->Pts(), -window.begin));
        return encoder.Write(*kept.get());
    }
    void endDecoding() override { encoder.Drain(); }

private:
    SampleShape shape;
    std::unique_ptr<MediaType> newType;  // of samples that were left out
};

class CopyLane : public TranscodeLane {
public:
    CopyLane(const MediaType& input, const TimeWindow& part, LaneEnd to)
        : type(input), window(part), end(std::move(to)) {}

    const MediaType& Type() const override { return type; }
    void Start() override {}
    void Push(PacketBuffer& packet) override {
        const std::int64_t time = packet.Pts() != kUnsetTime ? packet.Pts() : packet.Dts();
        const bool wanted = time == kUnsetTime || ((window.begin == 0 || time >= window.begin) &&
                                                   (window.end == kUnsetTime || time < window.end));
        if (wanted && good) {
            packet.Pts() = shifted(packet.Pts(), -window.begin);
            packet.Dts() = shifted(packet.Dts(), -window.begin);
            good = end.output.Write(end.stream, packet);
        }
        end.shared->monitor.Consumed();
    }
    void Finish() override {}

private:
    const MediaType type;
    const TimeWindow window;
    const LaneEnd end;
    bool good = true;
};

}  // namespace

std::unique_ptr<TranscodeLane> makePictureLane(const MediaType& input, const LaneSettings& settings,
                                               LaneEnd end) {
    return std::make_unique<PictureLane>(input, settings, std::move(end));
}

std::unique_ptr<TranscodeLane> makeSampleLane(const MediaType& input, const LaneSettings& settings,
                                              LaneEnd end) {
    return std::make_unique<SampleLane>(input, settings, std::move(end));
}

std::unique_ptr<TranscodeLane> makeCopyLane(const MediaType& input, const TimeWindow& window, LaneEnd end) {
    return std::make_unique<CopyLane>(input, window, std::move(end));
}

}  // namespace Mivra::Tool
