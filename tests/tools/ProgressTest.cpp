// What people and programs see of a relay: the live line at every width, the lines for pipes, and when they
// come.
#include "tools/mivra/Progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <regex>

#include "tools/mivra/ProgressText.h"

namespace Mivra::Tool {
namespace {

const Progress kHalfway{
    .elapsed = 2, .position = 30, .duration = 60, .packets = 4321, .bytes = 7'500'000, .queued = 12};

/// Columns that a line takes on a terminal: no escape sequences, one for each character of UTF-8.
int columns(const std::string& line) {
    static const std::regex kEscape("\x1b\\[[0-9;]*[A-Za-z]");
    int count = 0;
    for (const char c : std::regex_replace(line, kEscape, "")) {
        count += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
    }
    return count;
}

TEST(ProgressText, LiveLineFitsEveryWidthAndDropsTheLeastFirst) {
    for (const bool unicode : {false, true}) {
        for (int width = 1; width <= 200; ++width) {
            const std::string line = liveLine(kHalfway, {width, true, unicode});
            EXPECT_LE(columns(line), std::max(width - 1, 0)) << width;
        }
    }
    struct {
        int width;
        const char* line;
    } const cases[] = {
        {5, " 50%"},
        {12, " 50%  15.0x"},
        {24, " 50%  #####-----  15.0x"},
        {37, " 50%  ######------  0:30/1:00  15.0x"},
        {80, " 50%  ##########-----------  0:30/1:00  15.0x  4321 packets  2.0 Mb/s  queue 12"},
    };
    for (const auto& [width, line] : cases) {
        EXPECT_EQ(liveLine(kHalfway, {width, false, false}), line);
    }
    EXPECT_EQ(liveLine(kHalfway, {24, true, true}), " 50%  \x1b[32m━━━━━\x1b[0;2m─────\x1b[0m  15.0×");
}

TEST(ProgressText, FiguresStaySaneWithoutDurationOrSense) {
    Progress live = kHalfway;
    live.duration = 0;
    live.position = 3723;
    EXPECT_EQ(liveLine(live, {60, false, false}), "1:02:03  1862x  4321 packets  16.1 kb/s  queue 12");
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Progress nonsense{
        .elapsed = -1, .position = nan, .duration = INFINITY, .packets = 0, .bytes = 9, .queued = 0};
    EXPECT_EQ(keyValueLine(nonsense),
              "event=progress elapsed=0.00 position=0.00 speed=0.00 packets=0 bytes=9 bitrate=0 queue=0");
    Progress over = kHalfway;
    over.position = 61;
    EXPECT_NE(keyValueLine(over).find("percent=100.0"), std::string::npos);
}

TEST(ProgressText, LinesForProgramsCanBeTakenApart) {
    const Summary summary{
        "done", kHalfway, {{"a \"b\"\n\xff.ts", "mpegts", {"video h264", "audio aac"}, {7, 8, 9}}}};
    const std::vector<std::string> lines = keyValueSummary(summary);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "event=output path=\"a \\\"b\\\"?\xff.ts\" format=mpegts streams=\"video h264, audio aac\" "
              "packets=7 bytes=8");
    EXPECT_EQ(lines[1],
              "event=summary state=done elapsed=2.00 position=30.00 duration=60.00 percent=50.0 speed=15.00 "
              "packets=4321 bytes=7500000 bitrate=2000000 queue=12");
    const auto json = nlohmann::json::parse(jsonSummary(summary));
    EXPECT_EQ(json["state"], "done");
    EXPECT_EQ(json["outputs"][0]["streams"][1], "audio aac");
    EXPECT_EQ(json["speed"], 15.0);
    EXPECT_EQ(nlohmann::json::parse(jsonLine(kHalfway))["event"], "progress");
    EXPECT_EQ(jsonSummary(summary).find('\n'), std::string::npos);
}

TEST(ConsoleText, AProblemIsOneLineWhateverItsParts) {
    EXPECT_EQ(toLine({"cannot open\nit", "a\x1b[2J.ts", "check\tit"}),
              "mivra: cannot open?it: a?[2J.ts; check?it");
    EXPECT_EQ(toLine({"what", "", ""}), "mivra: what");
}

/// Everything that a run of two seconds, told of every 10 ms, writes to a descriptor.
std::string output(int readEnd, int writeEnd, bool json, double stats) {
    {
        Console console(writeEnd);
        const auto reporter = makeProgressReporter(console, json, stats);
        Progress progress = kHalfway;
        for (int tick = 0; tick <= 200; ++tick) {
            progress.elapsed = tick / 100.0;
            reporter->Update(progress);
        }
        console.Line("between");
        reporter->Finish({"done", progress, {}});
    }
    ::close(writeEnd);
    std::string text;
    char part[4096];
    for (ssize_t size; (size = ::read(readEnd, part, sizeof(part))) > 0;) {
        text.append(part, static_cast<std::size_t>(size));
    }
    ::close(readEnd);
    return text;
}

std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size()) {
        ++found;
    }
    return found;
}

TEST(ProgressReporter, InAPipeTellsPlainLinesAtTheAskedPace) {
    struct {
        bool json;
        double stats;
        std::size_t lines;
    } const cases[] = {{false, 0.5, 4}, {false, 0, 0}, {true, 0.25, 8}, {true, 3, 0}};
    for (const auto& [json, stats, lines] : cases) {
        int ends[2];
        ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        const std::string text = output(ends[0], ends[1], json, stats);
        EXPECT_EQ(count(text, json ? "\"event\":\"progress\"" : "event=progress"), lines);
        EXPECT_EQ(count(text, "\n"), lines + 2);
        EXPECT_EQ(text.find_first_of("\x1b\r"), text.npos);
    }
}

TEST(ProgressReporter, OnATerminalRedrawsOneLineAtMostTenTimesASecond) {
    ASSERT_EQ(::setenv("TERM", "xterm", 1), 0);
    int master = -1;
    int slave = -1;
    winsize size{.ws_row = 24, .ws_col = 30, .ws_xpixel = 0, .ws_ypixel = 0};
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, &size), 0);
    const std::string text = output(master, slave, false, 1);
    // Twice a tenth of a second may be rounded to less; once more below the other line.
    EXPECT_GE(count(text, " 50%"), 18u);
    EXPECT_LE(count(text, " 50%"), 21u);
    EXPECT_EQ(count(text, "\n"), 2u);
    EXPECT_EQ(text.find("packets  "), text.npos);  // 30 columns have no room for it
    EXPECT_NE(text.find("\r\x1b[Kbetween\r\n"), text.npos);
    EXPECT_EQ(count(text, "done"), 1u);
}

}  // namespace
}  // namespace Mivra::Tool
