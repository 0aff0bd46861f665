// The diagnosis on machines that lack something.
#include "tools/mivra/Diagnosis.h"

#include <gtest/gtest.h>

#include <cstring>

#include "mivra/platform/System.h"
#include "tests/support/FaultInjection.h"

namespace Mivra::Tool {
namespace {

using Mivra::Test::FaultKind;
using Mivra::Test::FaultPlan;
using Platform::g_system;

Platform::SystemTable s_real;
const char* s_hidden;

void* findSymbol(void* library, const char* name) {
    return std::strcmp(name, s_hidden) == 0 ? nullptr : s_real.findSymbol(library, name);
}

Diagnosis diagnoseWithout(const char* function) {
    s_real = g_system;
    s_hidden = function;
    g_system.findSymbol = findSymbol;
    Diagnosis diagnosis = diagnose("");
    g_system = s_real;
    return diagnosis;
}

std::string problemsOf(const Diagnosis& diagnosis, Health health) {
    std::string subjects;
    for (const Finding& finding : diagnosis.findings) {
        subjects += finding.health == health ? finding.subject + ";" : "";
    }
    return subjects;
}

TEST(Diagnosis, WithoutAnyFfmpegItExplainsEachLibrary) {
    const FaultPlan plan(FaultKind::OpenLibrary, 1, FaultPlan::Span::FromThenOn);
    const Diagnosis diagnosis = diagnose("");
    ASSERT_FALSE(diagnosis.IsReady());
    EXPECT_EQ(diagnosis.findings[0].subject.find("libavutil.so."), 0u);
    EXPECT_NE(diagnosis.findings[0].remedy, "");
    EXPECT_EQ(diagnosis.details["ffmpeg"]["functionsFound"], 0);
    EXPECT_EQ(diagnosis.details["ffmpeg"]["firstMissing"].get<std::string>().find("av_buffer_ref of "), 0u);
    EXPECT_EQ(diagnosis.details["problems"].size(), 8u);  // six libraries, their functions, the formats
}

TEST(Diagnosis, AFunctionThatARelayNeedsIsBadAndAnotherIsPoor) {
    struct {
        const char* function;
        const char* bad;
        const char* poor;
    } const cases[] = {
        {"nothing", "", ""},
        {"sws_scale", "functions;formats;", ""},
        {"avformat_query_codec", "relay functions;", "functions;"},
        {"avcodec_get_name", "", "functions;"},
    };
    for (const auto& [function, bad, poor] : cases) {
        const Diagnosis diagnosis = diagnoseWithout(function);
        EXPECT_EQ(problemsOf(diagnosis, Health::Bad), bad) << function;
        EXPECT_EQ(problemsOf(diagnosis, Health::Poor), poor) << function;
        EXPECT_EQ(diagnosis.IsReady(), *bad == '\0');
    }
}

TEST(Diagnosis, WithoutMemoryForThePoolsItIsNotReady) {
    s_real = g_system;
    g_system.allocate = [](std::size_t) -> void* { return nullptr; };
    const Diagnosis diagnosis = diagnose("");
    g_system = s_real;
    EXPECT_EQ(problemsOf(diagnosis, Health::Bad), "pools;");
}

}  // namespace
}  // namespace Mivra::Tool
