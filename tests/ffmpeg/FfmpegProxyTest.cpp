// The loader against the system's own FFmpeg, with the table of system calls telling what it opens, in which
// order it closes, and hiding libraries and functions from it.
#include "mivra/ffmpeg/FfmpegProxy.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegInventory.h"
#include "mivra/ffmpeg/FfmpegLibraries.h"
#include "mivra/ffmpeg/FfmpegOptional.h"
#include "mivra/platform/System.h"
#include "tests/support/FaultInjection.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempFolder.h"

namespace Mivra::FFmpeg {
namespace {

using Common::FileLog;
using Platform::g_system;
using Test::FaultKind;
using Test::LogCapture;
using Test::TempFolder;

// What callers rely on, name by name and in this order.
const std::vector<std::string> kFunctionNames = [] {
    std::istringstream words(R"(
av_buffer_ref av_buffer_unref av_channel_layout_default av_dict_free av_dict_set av_frame_alloc
av_frame_free av_frame_unref av_free av_freep av_get_bytes_per_sample av_hwdevice_ctx_create
av_hwframe_ctx_alloc av_hwframe_ctx_init av_hwframe_get_buffer av_hwframe_transfer_data
av_image_copy_to_buffer av_image_fill_arrays av_image_get_buffer_size av_int_list_length_for_size
av_log_format_line av_log_set_callback av_log_set_level av_mallocz av_opt_set_bin av_rescale_q
av_samples_fill_arrays av_sample_fmt_is_planar av_samples_get_buffer_size av_version_info
avutil_configuration avutil_version av_find_input_format av_guess_format av_interleaved_write_frame
av_read_frame av_write_trailer avformat_alloc_context avformat_close_input avformat_configuration
avformat_find_stream_info avformat_new_stream avformat_open_input avformat_seek_file
avformat_version avformat_write_header avio_alloc_context avio_closep avio_open av_packet_alloc
av_packet_clone av_packet_free av_packet_unref avcodec_alloc_context3 avcodec_configuration
avcodec_find_decoder_by_name avcodec_find_decoder avcodec_find_encoder_by_name avcodec_find_encoder
avcodec_free_context avcodec_get_hw_config av_codec_is_encoder avcodec_is_open avcodec_open2
avcodec_parameters_to_context avcodec_receive_frame avcodec_receive_packet avcodec_send_frame
avcodec_send_packet avcodec_version sws_freeContext sws_getContext sws_scale swr_alloc_set_opts2
swr_free swr_convert swr_init av_buffersink_get_frame avfilter_get_by_name avfilter_graph_alloc
avfilter_graph_config avfilter_graph_create_filter avfilter_graph_free avfilter_graph_parse_ptr
avfilter_inout_alloc avfilter_link
)");
    return std::vector<std::string>(std::istream_iterator<std::string>(words), {});
}();
constexpr std::size_t kFirstOf[] = {0, 32, 49, 70, 73, 77};  // of each library

/// What the loader did, and what it is not to find.
struct Traffic {
    Platform::SystemTable real;
    std::mutex lock;
    std::vector<std::pair<std::string, void*>> opened;
    std::vector<void*> closed;
    std::vector<std::string> wanted;  // functions
    std::string hiddenLibrary;
    std::string hiddenFunction;
    std::string liarFunction;  // reports version 1.2.3
    std::string executable;

    bool IsBalanced() const { return opened.size() == closed.size(); }
    void Forget() {
        opened.clear();
        closed.clear();
        wanted.clear();
    }
};
Traffic* s_traffic;

void* openLibrary(const char* path, int flags) {
    const std::lock_guard hold(s_traffic->lock);
    if (!s_traffic->hiddenLibrary.empty() && std::strstr(path, s_traffic->hiddenLibrary.c_str()) != nullptr) {
        errno = ENOENT;
        return nullptr;
    }
    void* const handle = s_traffic->real.openLibrary(path, flags);
    if (handle != nullptr) {
        s_traffic->opened.emplace_back(path, handle);
        errno = EBADF;  // a success may leave anything there
    }
    return handle;
}

unsigned lyingVersion() {
    return 1 << 16 | 2 << 8 | 3;
}

void* findSymbol(void* library, const char* name) {
    const std::lock_guard hold(s_traffic->lock);
    s_traffic->wanted.emplace_back(name);
    if (s_traffic->liarFunction == name) {
        return reinterpret_cast<void*>(lyingVersion);
    }
    return s_traffic->hiddenFunction == name ? nullptr : s_traffic->real.findSymbol(library, name);
}

int closeLibrary(void* library) {
    const std::lock_guard hold(s_traffic->lock);
    s_traffic->closed.push_back(library);
    return s_traffic->real.closeLibrary(library);
}

ssize_t executablePath(char* path, std::size_t size) {
    const std::string& executable = s_traffic->executable;
    if (executable.empty() || executable.size() > size) {
        errno = ENOENT;
        return -1;
    }
    std::memcpy(path, executable.data(), executable.size());
    return static_cast<ssize_t>(executable.size());
}

class FfmpegProxyTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        // Kept mapped, so that loading again and again takes no time.
        for (const FfmpegLibrary& library : kFfmpegLibraries) {
            ASSERT_NE(::dlopen(library.file, RTLD_NOW), nullptr) << ::dlerror();
        }
    }

    void SetUp() override {
        s_traffic = &traffic;
        traffic.real = g_system;
        g_system.openLibrary = openLibrary;
        g_system.findSymbol = findSymbol;
        g_system.closeLibrary = closeLibrary;
        g_system.executablePath = executablePath;
        ASSERT_EQ(FfmpegProxy::ReferenceCount(), 0);
    }

    void TearDown() override {
        EXPECT_EQ(FfmpegProxy::ReferenceCount(), 0);
        EXPECT_TRUE(traffic.IsBalanced());
        while (FfmpegProxy::ReferenceCount() > 0) {
            FfmpegProxy::Unload();  // a failed case spoils no other
        }
        g_system = traffic.real;
    }

    /// Loads once and gives it back: everything is in order again.
    void expectLoads() {
        traffic.Forget();
        ASSERT_TRUE(FfmpegProxy::Load());
        EXPECT_EQ(FfmpegProxy::ReferenceCount(), 1);
        FfmpegProxy::Unload();
    }

    LogCapture log;
    Traffic traffic;
};

TEST_F(FfmpegProxyTest, KeepsTheLibrariesUntilTheLastUnloadAndFreesThemInTheOrderOfLoading) {
    ASSERT_TRUE(FfmpegProxy::Load());
    ASSERT_TRUE(FfmpegProxy::Load());
    ASSERT_EQ(traffic.opened.size(), kFfmpegLibraryCount);
    FfmpegProxy::Unload();
    EXPECT_TRUE(traffic.closed.empty());
    constexpr int kS16 = 1;
    EXPECT_EQ(FfmpegProxy::av_get_bytes_per_sample(kS16), 2);
    FfmpegProxy::Unload();
    ASSERT_EQ(traffic.closed.size(), kFfmpegLibraryCount);
    for (std::size_t i = 0; i < kFfmpegLibraryCount; ++i) {
        EXPECT_EQ(traffic.opened[i].first, kFfmpegLibraries[i].file);
        EXPECT_EQ(traffic.closed[i], traffic.opened[i].second);
    }
    EXPECT_NE(FfmpegProxy::av_get_bytes_per_sample, nullptr);  // not cleared
    expectLoads();
    EXPECT_EQ(log.Lines().size(), 0u);
}

TEST_F(FfmpegProxyTest, UnloadWithoutLoadLogsAndStaysAtZero) {
    FfmpegProxy::Unload();
    EXPECT_EQ(FfmpegProxy::ReferenceCount(), 0);
    EXPECT_EQ(log.Count("] FfmpegProxy::Unload: negative reference count"), 1);
    EXPECT_EQ(log.Count("[FfmpegProxy/"), 1);
    EXPECT_TRUE(traffic.closed.empty());
    expectLoads();
}

TEST_F(FfmpegProxyTest, ResolvesEveryFunctionInOrder) {
    expectLoads();
    ASSERT_EQ(kFunctionNames.size(), 86u);
    ASSERT_GE(traffic.wanted.size(), kFunctionNames.size());
    for (std::size_t i = 0; i < kFunctionNames.size(); ++i) {
        EXPECT_EQ(traffic.wanted[i], kFunctionNames[i]);
    }
}

TEST_F(FfmpegProxyTest, EachLibraryMissingInTurnIsAFailedLoad) {
    for (std::size_t i = 0; i < kFfmpegLibraryCount; ++i) {
        SCOPED_TRACE(kFfmpegLibraries[i].file);
        traffic.Forget();
        log.Clear();
        traffic.hiddenLibrary = kFfmpegLibraries[i].file;
        EXPECT_FALSE(FfmpegProxy::Load());
        EXPECT_EQ(FfmpegProxy::ReferenceCount(), 0);
        EXPECT_EQ(traffic.opened.size(), i);
        ASSERT_TRUE(traffic.IsBalanced());
        for (std::size_t j = 0; j < i; ++j) {
            EXPECT_EQ(traffic.closed[j], traffic.opened[j].second);
        }
        const std::vector<std::string> lines = log.Lines(FileLog::Debug);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(log.Lines().size(), 1u);
        EXPECT_EQ(lines[0].find("[FfmpegProxy/"), 0u) << lines[0];
        const std::string text = std::string("] ") + kFfmpegLibraries[i].name + " not found 2";
        EXPECT_EQ(lines[0].substr(lines[0].find(']')), text);
        traffic.hiddenLibrary.clear();
        expectLoads();
    }
}

TEST_F(FfmpegProxyTest, EachFunctionMissingInTurnIsAFailedLoad) {
    for (std::size_t i = 0; i < kFunctionNames.size(); ++i) {
        SCOPED_TRACE(kFunctionNames[i]);
        traffic.Forget();
        log.Clear();
        Common::LogLine(FileLog::Trace, "%s", kFunctionNames[i].c_str());  // else equal lines are folded
        traffic.hiddenFunction = kFunctionNames[i];
        EXPECT_FALSE(FfmpegProxy::Load());
        EXPECT_EQ(FfmpegProxy::ReferenceCount(), 0);
        EXPECT_EQ(traffic.wanted.size(), i + 1);
        EXPECT_EQ(traffic.opened.size(), kFfmpegLibraryCount);
        ASSERT_TRUE(traffic.IsBalanced());
        ASSERT_EQ(log.Errors().size(), 1u);
        EXPECT_EQ(log.Count("] Failed to find one or more functions 0"), 1);
    }
}

TEST_F(FfmpegProxyTest, AnotherMajorVersionIsAFailedLoad) {
    for (const FfmpegLibrary& library : kFfmpegLibraries) {
        traffic.Forget();
        log.Clear();
        traffic.liarFunction = library.versionFunction;
        EXPECT_FALSE(FfmpegProxy::Load());
        EXPECT_EQ(FfmpegProxy::ReferenceCount(), 0);
        EXPECT_TRUE(traffic.IsBalanced());
        ASSERT_EQ(log.Errors().size(), 1u);
        const std::string text = std::string("] FfmpegProxy::Load: ") + library.name +
                                 " is of major version 1, version " + std::to_string(library.major) +
                                 " is needed";
        EXPECT_EQ(log.Count(text), 1) << log.Errors()[0];
    }
}

TEST_F(FfmpegProxyTest, AMissingOptionalFunctionIsNoFailure) {
    expectLoads();
    EXPECT_NE(FfmpegOptional::av_strerror, nullptr);
    traffic.hiddenFunction = "av_strerror";
    expectLoads();
    EXPECT_EQ(FfmpegOptional::av_strerror, nullptr);
    EXPECT_NE(FfmpegOptional::avio_size, nullptr);
    traffic.hiddenFunction = "swscale_version";  // then the file name is believed
    expectLoads();
}

TEST_F(FfmpegProxyTest, TriesTheFolderOfTheExecutableFirst) {
    const TempFolder folder;
    const std::string beside = folder / kFfmpegLibraries[1].file;
    traffic.executable = folder / "host";
    expectLoads();  // nothing there: the system's
    EXPECT_EQ(traffic.opened[1].first, kFfmpegLibraries[1].file);

    void* const avformat = traffic.real.openLibrary(kFfmpegLibraries[1].file, RTLD_NOW);
    const std::string target = traffic.real.loadedPath(avformat);
    traffic.real.closeLibrary(avformat);
    ASSERT_EQ(::symlink(target.c_str(), beside.c_str()), 0);
    expectLoads();
    EXPECT_EQ(traffic.opened[0].first, kFfmpegLibraries[0].file);
    EXPECT_EQ(traffic.opened[1].first, beside);

    // A file there that is no library is not passed over. (Another folder: the system remembers paths.)
    const TempFolder other;
    traffic.executable = other / "host";
    Mivra::Test::WriteWholeFile(other / kFfmpegLibraries[1].file, "no library");
    traffic.Forget();
    EXPECT_FALSE(FfmpegProxy::Load());
    EXPECT_EQ(traffic.opened.size(), 1u);
    EXPECT_EQ(log.Count("] avformat not found "), 1);

    // Folders that nobody can name: the system's library path alone.
    for (const std::string& executable : {std::string(4095, 'x'), "/" + std::string(4094, 'x'),
                                          std::string(4090, 'x') + "/host", std::string("host")}) {
        traffic.executable = executable;
        expectLoads();
    }
}

TEST_F(FfmpegProxyTest, EveryNthFailureLeavesNothingBehind) {
    traffic.executable = "/nowhere/host";
    for (const FaultKind kind : {FaultKind::OpenLibrary, FaultKind::FindSymbol, FaultKind::Stat}) {
        const std::uint64_t failures = Mivra::Test::ForEachNthFailure(kind, [this] {
            const bool loaded = FfmpegProxy::Load();
            EXPECT_EQ(FfmpegProxy::ReferenceCount(), loaded ? 1 : 0);
            EXPECT_EQ(traffic.IsBalanced(), !loaded);
            if (loaded) {
                FfmpegProxy::Unload();
            }
        });
        EXPECT_TRUE(traffic.IsBalanced());
        EXPECT_GE(failures, kind == FaultKind::FindSymbol    ? kFunctionNames.size()
                            : kind == FaultKind::OpenLibrary ? kFfmpegLibraryCount
                                                             : 0);
    }
}

TEST_F(FfmpegProxyTest, ManyThreadsLoadCallAndUnload) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 25;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < kRounds; ++round) {
                ASSERT_TRUE(FfmpegProxy::Load());
                EXPECT_GE(FfmpegProxy::ReferenceCount(), 1);
                EXPECT_EQ(FfmpegMajor(FfmpegProxy::avcodec_version()), kFfmpegLibraries[2].major);
                FfmpegProxy::Unload();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(FfmpegProxyTest, InventoryNamesEverythingThatIsWrong) {
    const FfmpegInventory good = TakeFfmpegInventory();
    EXPECT_TRUE(good.IsUsable());
    EXPECT_FALSE(good.release.empty());
    ASSERT_EQ(good.libraries.size(), kFfmpegLibraryCount);
    for (std::size_t i = 0; i < kFfmpegLibraryCount; ++i) {
        const std::size_t next = i + 1 < kFfmpegLibraryCount ? kFirstOf[i + 1] : kFunctionNames.size();
        EXPECT_EQ(static_cast<std::size_t>(good.libraries[i].functions), next - kFirstOf[i]);
        EXPECT_EQ(good.libraries[i].path.front(), '/');
        EXPECT_EQ(std::stoul(good.libraries[i].version), kFfmpegLibraries[i].major);
    }

    traffic.hiddenLibrary = "libswscale";
    traffic.hiddenFunction = "avio_size";
    traffic.liarFunction = "avcodec_version";
    const FfmpegInventory bad = TakeFfmpegInventory();
    EXPECT_FALSE(bad.IsUsable());
    EXPECT_EQ(bad.libraries[1].missingOptional, std::vector<std::string>{"avio_size"});
    EXPECT_TRUE(bad.libraries[1].IsUsable());
    EXPECT_EQ(bad.libraries[2].version, "1.2.3");
    EXPECT_FALSE(bad.libraries[2].IsUsable());
    EXPECT_FALSE(bad.libraries[3].error.empty());
    EXPECT_EQ(bad.libraries[3].missing.size(), 3u);
    EXPECT_TRUE(bad.libraries[5].IsUsable());
    EXPECT_EQ(log.Lines().size(), 0u);
    EXPECT_TRUE(traffic.IsBalanced());
}

}  // namespace
}  // namespace Mivra::FFmpeg
