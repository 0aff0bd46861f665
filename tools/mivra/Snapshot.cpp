#include "tools/mivra/Snapshot.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "mivra/media/EncoderFactory.h"
#include "tools/mivra/ContactSheet.h"
#include "tools/mivra/LibraryUse.h"
#include "tools/mivra/MediaRuntime.h"
#include "tools/mivra/PictureReader.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/ProgressText.h"
#include "tools/mivra/StreamMapping.h"
#include "tools/mivra/TranscodeEngines.h"

namespace Mivra::Tool {
namespace {

using Common::MediaType;
using Common::PacketBuffer;

constexpr int kTileWidth = 320;
constexpr double kRedrawSeconds = 0.1;
constexpr int kLargestSide = 32767;
// FFmpeg takes pictures of fewer pixels than this, with a margin added to each side.
constexpr std::int64_t kMostPixels = std::int64_t{1} << 28;
constexpr std::int64_t kSideMargin = 128;

struct PictureFormat {
    const char* extension;
    int codec;
    const char* options;
};

constexpr PictureFormat kFormats[] = {
    {".png", AV_CODEC_ID_PNG, ""},
    {".jpg", AV_CODEC_ID_MJPEG, "qmin=2:qmax=2"},
    {".jpeg", AV_CODEC_ID_MJPEG, "qmin=2:qmax=2"},
};

const PictureFormat* findFormat(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    const auto* const found =
        std::find_if(std::begin(kFormats), std::end(kFormats),
                     [&](const PictureFormat& format) { return extension == format.extension; });
    return found == std::end(kFormats) ? nullptr : found;
}

std::int64_t toPacketTime(double seconds) {
    return std::llround(seconds * static_cast<double>(kPacketSecond));
}

std::string secondsText(std::int64_t time) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.3f s", toSeconds(time));
    return text;
}

/// One picture into a file's bytes. Nothing when it cannot be.
Packet encode(const PictureFormat& format, const MediaType& type, PacketBuffer& picture) {
    MediaType from(type);
    MediaType wanted;
    wanted.ContentType() = Common::ContentType_t::Video;
    wanted.CodecId() = static_cast<Common::Codec_t>(format.codec);
    Media::EncoderParameters parameters;
    parameters.AllowHardwareAcceleration = false;
    parameters.Options = format.options;
    const auto encoder = Media::EncoderFactory::Create(&from, &wanted, &parameters);
    if (encoder == nullptr || !encoder->IsUsable()) {
        return {};
    }
    // The encoder reads one picture after the other; this one is the first.
    delete std::exchange(picture.NewMediaType(), nullptr);
    picture.Pts() = picture.Dts() = 0;
    encoder->Write(&picture);
    encoder->Drain();
    return Packet::Adopt(encoder->Read());
}

void writeFile(const std::string& path, PacketBuffer& bytes) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wbe"), std::fclose);
    if (file == nullptr) {
        throw ProblemError(ExitCode::CannotOpen,
                           {"cannot open the output: " + std::generic_category().message(errno), path,
                            "check the folder and its permissions"});
    }
    const auto size = static_cast<std::size_t>(bytes.ActualSize());
    if (std::fwrite(bytes.Buffer(), 1, size, file.get()) != size || std::fflush(file.get()) != 0) {
        throw ProblemError(ExitCode::WriteFailed,
                           {"cannot write the output: " + std::generic_category().message(errno), path,
                            "is there room for it?"});
    }
}

/// How far a sheet has come, as a live line; nothing when nobody looks at a terminal.
class SheetProgress {
public:
    SheetProgress(Console& where, double duration) : console(where) {
        progress.duration = duration;
        progress.pictures = true;
    }
    ~SheetProgress() { console.EndLive(); }
    SheetProgress(const SheetProgress&) = delete;
    SheetProgress& operator=(const SheetProgress&) = delete;

    void Update(double position, int count) {
        progress.elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
        progress.position = position;
        progress.packets = static_cast<std::uint64_t>(count);
        if (console.IsTerminal() && progress.elapsed >= next) {
            console.SetLive(liveLine(progress, {console.Width(), console.HasColor(), console.HasUnicode()}));
            next = progress.elapsed + kRedrawSeconds;
        }
    }

private:
    using Clock = std::chrono::steady_clock;

    Console& console;
    const Clock::time_point begin = Clock::now();
    Progress progress;
    double next = kRedrawSeconds;
};

class Snapshot {
public:
    explicit Snapshot(const SnapshotOptions& what)
        : options(what), format(*findFormat(what.output)), reader(what.input) {}

    ExitCode Run(Console& console) {
        options.columns > 0 ? takeSheet(console) : takeOne();
        const std::string damage =
            reader.Damage().empty() && damaged ? "a picture could not be decoded whole" : reader.Damage();
        if (!damage.empty()) {
            console.Error({"damaged input: " + damage, options.input, "what could be read is shown"});
            return ExitCode::Damaged;
        }
        return ExitCode::Done;
    }

private:
    void takeOne() {
        reader.SetSize(options.width, options.height);
        const Packet picture = shownAt(toPacketTime(options.at));
        save(reader.PictureType(), *picture.get());
    }

    void takeSheet(Console& console) {
        const std::int64_t duration = reader.Duration();
        if (duration <= 0) {
            throw ProblemError(ExitCode::CannotOpen, {"the input does not tell how long it is", options.input,
                                                      "a sheet needs a file"});
        }
        const auto [width, height] = tileSize();
        checkSheet(options.columns * width, options.rows * height);
        reader.SetSize(width, height);
        ContactSheet sheet(options.columns, options.rows, width, height);
        const int count = options.columns * options.rows;
        SheetProgress shown(console, toSeconds(duration));
        for (int i = 0; i < count; ++i) {
            // The middle of each part, so that neither the first nor the last picture is a black one.
            const std::int64_t time = rescale(duration, {2 * i + 1, 2 * count}, {1, 1});
            put(time, i, sheet);
            shown.Update(toSeconds(time), i + 1);
        }
        MediaType type;
        type.ContentType() = Common::ContentType_t::Video;
        type.CodecId() = Common::Codec_t::UNCOMPRESSED;
        type.PixelFormat() = static_cast<Common::PixelFormat_t>(AV_PIX_FMT_RGB24);
        type.Width() = sheet.Width();
        type.Height() = sheet.Height();
        const auto pixels =
            Packet::Adopt(new PacketBuffer(sheet.Pixels().data(), static_cast<int>(sheet.Pixels().size())));
        save(type, *pixels.get());
    }

    void checkSheet(int width, int height) const {
        if (width > kLargestSide || height > kLargestSide ||
            (width + kSideMargin) * (height + kSideMargin) >= kMostPixels) {
            throw ProblemError(ExitCode::Usage, {"the sheet would be too large: " + std::to_string(width) +
                                                     "x" + std::to_string(height),
                                                 options.output, "choose fewer or smaller pictures"});
        }
    }

    void put(std::int64_t time, int number, ContactSheet& sheet) {
        const Packet picture = shownAt(time);
        const MediaType& type = reader.PictureType();
        const auto stride = numberOf(type, "Stride", std::int64_t{type.Width()} * 3);
        sheet.Put(number % options.columns, number / options.columns, picture->Buffer(),
                  static_cast<int>(stride), clockText(time));
    }

    Packet shownAt(std::int64_t time) {
        Packet picture = reader.ShownAt(time);
        if (picture) {
            damaged = damaged || isDamaged(*picture.get());
            return picture;
        }
        if (reader.End() == kUnsetTime) {
            throw ProblemError(ExitCode::CannotOpen,
                               {"no picture could be decoded", options.input, "is the file damaged?"});
        }
        throw ProblemError(ExitCode::Usage, {"no picture is shown at " + secondsText(time), options.input,
                                             "its last one ends at " + secondsText(reader.End())});
    }

    /// As asked for, or so wide and in the shape that the picture has on a screen.
    std::pair<int, int> tileSize() const {
        if (options.width > 0) {
            return {options.width, options.height};
        }
        const MediaType type = reader.ShownType();
        double shape = double(std::max(1, type.Width())) / std::max(1, type.Height());
        if (type.PixelAspectRatio().Num() > 0 && type.PixelAspectRatio().Den() > 0) {
            shape *= double(type.PixelAspectRatio().Num()) / type.PixelAspectRatio().Den();
        }
        const double high = std::clamp(kTileWidth / shape, 2.0, 4.0 * kTileWidth);
        return {kTileWidth, static_cast<int>(std::lround(high / 2)) * 2};
    }

    void save(const MediaType& type, PacketBuffer& picture) const {
        const Packet bytes = encode(format, type, picture);
        if (!bytes) {
            throw ProblemError(ExitCode::CannotOpen, {"FFmpeg here cannot write " + codecName(format.codec),
                                                      options.output, "choose another format"});
        }
        writeFile(options.output, *bytes.get());
    }

    const SnapshotOptions& options;
    const PictureFormat& format;
    PictureReader reader;
    bool damaged = false;  // a picture that was taken
};

}  // namespace

bool isPictureName(const std::string& path) {
    return findFormat(path) != nullptr;
}

ExitCode snapshot(const SnapshotOptions& options) {
    Console console(STDERR_FILENO);
    std::error_code ignored;
    if (std::filesystem::equivalent(options.input, options.output, ignored)) {
        console.Error({"the output is also the input", options.output, "choose another name"});
        return ExitCode::Usage;
    }
    try {
        const MediaRuntime runtime;
        return Snapshot(options).Run(console);
    } catch (const ProblemError& error) {
        console.Error(error.problem);
        return error.code;
    } catch (const std::bad_alloc&) {
        console.Error({"no memory for the pictures", options.input, ""});
        return ExitCode::Failed;
    }
}

}  // namespace Mivra::Tool
