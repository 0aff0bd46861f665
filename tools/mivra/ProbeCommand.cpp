// mivra probe: tells what the streams of files are.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <sstream>

#include "mivra/codecs/h264/H264ConfigurationParser.h"
#include "tools/mivra/Commands.h"
#include "tools/mivra/H264Sets.h"
#include "tools/mivra/InputPacket.h"
#include "tools/mivra/Interrupt.h"
#include "tools/mivra/MediaRuntime.h"
#include "tools/mivra/ProblemError.h"
#include "tools/mivra/ReportText.h"
#include "tools/mivra/StreamReport.h"

namespace Mivra::Tool {
namespace {

using Codecs::H264::H264ConfigurationParser;
using Common::Codec_t;
using Common::MediaType;
using Json = nlohmann::ordered_json;

/// How far is looked for the first packet of a stream that does not say what it is.
constexpr int kMostPackets = 1000;
constexpr int kMostFiles = 1000;

struct ProbeOptions {
    std::vector<std::string> files;
    bool json = false;
    bool nal = false;
    bool sdp = false;
};

double seconds(std::int64_t time) {
    return static_cast<double>(time) / static_cast<double>(kPacketSecond);
}

/// One file, looked into.
class Probe {
public:
    Probe(const ProbeOptions& what, const std::string& file, Console& where)
        : options(what), path(file), console(where), input(file) {}

    ExitCode Run() {
        input.Open();
        readFirstPackets();
        report();
        if (!input.Damage().empty()) {
            console.Error({"the input is damaged: " + input.Damage(), path, "what could be read was told"});
            return ExitCode::Damaged;
        }
        if (!known) {
            console.Error({"nothing in the input tells what it is", path, "is it what its name says?"});
            return ExitCode::Damaged;
        }
        return ExitCode::Done;
    }

private:
    /// Whether only its packets can tell what the stream is.
    bool needsPacket(int stream) const {
        const MediaType& type = input.Type(stream);
        return type.CodecId() == Codec_t::AAC && type.CodecPrivateDataSize() == 0;
    }

    void readFirstPackets() {
        first.resize(static_cast<std::size_t>(input.StreamCount()));
        int missing = 0;
        for (int i = 0; i < input.StreamCount(); ++i) {
            missing += needsPacket(i) ? 1 : 0;
        }
        for (int i = 0; missing > 0 && i < kMostPackets && input.Read() == Demuxer::Result::Packet; ++i) {
            const int stream = input.Packet().stream_index;
            noteUnits();
            if (needsPacket(stream) && !first[static_cast<std::size_t>(stream)]) {
                first[static_cast<std::size_t>(stream)] = copyPacket(input);
                --missing;
            }
        }
    }

    /// Of a raw file only its name may say that it is one: then nothing tells a size or rate.
    static bool isKnown(const MediaType& type) {
        switch (type.ContentType()) {
            case Common::ContentType_t::Video:
                return type.Width() > 0;
            case Common::ContentType_t::Audio:
                return type.SampleRate() > 0;
            default:
                return true;
        }
    }

    void report() {
        Json file = {{"file", path}, {"duration", nullptr}, {"streams", Json::array()}};
        if (input.Duration() > 0) {
            file["duration"] = seconds(input.Duration());
        }
        for (int i = 0; i < input.StreamCount(); ++i) {
            MediaType type(input.Type(i));
            file["streams"].push_back(
                reportStream(i, type, first[static_cast<std::size_t>(i)].get(), options.sdp));
            known = known || isKnown(type);
        }
        if (options.json) {
            writeObject(file);
            return;
        }
        for (const std::string& line : reportText(file)) {
            console.Line(line);
        }
        tellPackets([this](const Json& packet) { printUnits(packet); });
    }

    /// The packets go out as they are read, however many there are.
    void writeObject(const Json& file) {
        std::string text = toText(file);
        if (options.nal) {
            text.back() = ',';
            console.Part(text + "\"packets\":[");
            const char* separator = "";
            tellPackets([&](const Json& packet) {
                console.Part(separator);
                console.Part(toText(packet));
                separator = ",";
            });
            text = "]}";
        }
        console.Line(text);
    }

    static std::string toText(const Json& json) {
        return json.dump(-1, ' ', false, Json::error_handler_t::replace);
    }

    /// Puts what is in the packet read last to the others, when it was asked for.
    void noteUnits() {
        const AVPacket& packet = input.Packet();
        const MediaType& type = input.Type(packet.stream_index);
        if (!options.nal || type.CodecId() != Codec_t::H264) {
            return;
        }
        const std::string text =
            H264ConfigurationParser::PrintNalUnits(packet.data, packet.size, h264LengthSize(type));
        Json units = Json::array();
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            units.push_back(line);
        }
        const std::int64_t dts = rescale(packet.dts, input.TimeBase(packet.stream_index), kPacketTimeBase);
        packets.push_back({{"stream", packet.stream_index},
                           {"bytes", packet.size},
                           {"dts", dts == kUnsetTime ? Json(nullptr) : Json(seconds(dts))},
                           {"key", (packet.flags & AV_PKT_FLAG_KEY) != 0},
                           {"units", std::move(units)}});
    }

    bool readOn() { return !Interrupt::IsRequested() && input.Read() == Demuxer::Result::Packet; }

    /// Gives tell() the packets that were read for the report, then all others.
    template <typename Tell>
    void tellPackets(Tell tell) {
        bool more = options.nal;
        while (more) {
            for (const Json& packet : packets) {
                tell(packet);
            }
            packets.clear();
            more = readOn();
            if (more) {
                noteUnits();
            }
        }
    }

    void printUnits(const Json& packet) {
        const std::string head = "  " + packet["stream"].dump() + "  " +
                                 (packet["dts"].is_null() ? "?" : packet["dts"].dump()) +
                                 (packet["key"] == true ? " key  " : "  ");
        for (const Json& unit : packet["units"]) {
            console.Line(head + unit.get<std::string>());
        }
    }

    const ProbeOptions& options;
    const std::string& path;
    Console& console;
    Demuxer input;
    std::vector<Packet> first;  // by stream, where one was needed
    Json packets = Json::array();
    bool known = false;  // what any stream is
};

ExitCode probe(const ProbeOptions& options) {
    Console console(STDOUT_FILENO);
    ExitCode worst = ExitCode::Done;
    const auto fail = [&](const ProblemError& error) {
        console.Error(error.problem);
        worst = worst == ExitCode::Done ? error.code : worst;
    };
    const Interrupt interrupt;
    try {
        const MediaRuntime runtime;
        for (const std::string& file : options.files) {
            try {
                const ExitCode code = Probe(options, file, console).Run();
                worst = worst == ExitCode::Done ? code : worst;
            } catch (const ProblemError& error) {
                fail(error);
            }
        }
    } catch (const ProblemError& error) {
        fail(error);
    }
    return worst;
}

}  // namespace

void addProbeCommand(CLI::App& program, Action& action) {
    auto* const command = program.add_subcommand("probe", "Tell what the streams of files are");
    const auto options = std::make_shared<ProbeOptions>();
    command->add_option("FILE", options->files, "Files to look into")
        ->expected(0, kMostFiles)
        ->type_name("FILE...");
    command->add_flag("--json", options->json, "One JSON object a file instead of text");
    command->add_flag("--nal", options->nal, "List the NAL units of H.264 streams, too");
    command->add_flag("--sdp", options->sdp, "Lines of a session description, too");
    command->footer(
        "Whatever FFmpeg can take apart, raw .h264 and .aac included; '-' is standard input, and"
        "\ntcp://HOST:PORT, tcp-listen://HOST:PORT or udp://HOST:PORT the network."
        "\n\nEnds with 0 done, 2 usage, 3 a file that cannot be opened, 5 a damaged file: the first of "
        "them.");
    command->callback([options, &action] {
        if (options->files.empty()) {
            throw CLI::ValidationError("a file is needed");
        }
        action = [options] { return probe(*options); };
    });
}

}  // namespace Mivra::Tool
