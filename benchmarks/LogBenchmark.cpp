// Lines to a file: the library's log beside the same line formatted, locked, written and unlocked by hand
// (the limit: three system calls), and beside spdlog flushing each line. One and four threads.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "mivra/common/runtime/FileLog.h"

namespace {

using Mivra::Common::FileLog;

// A folder on whatever TMPDIR names; every run begins with an empty file, and none rolls.
class Folder {
public:
    Folder() : path((std::filesystem::temp_directory_path() / "mivra-log-XXXXXX").string()) {
        if (::mkdtemp(path.data()) == nullptr) std::abort();
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string File() const { return path + "/app.log"; }

private:
    std::string path;
};

constexpr char kFormat[] = "MediaSession[%p]::PushSample: stream %d, pts %lld, packet %d of %d bytes";
constexpr char kSpdFormat[] = "MediaSession[{}]::PushSample: stream {}, pts {}, packet {} of {} bytes";

std::unique_ptr<Folder> s_folder;

std::unique_ptr<FileLog> s_log;

void setUpOurs(const benchmark::State&) {
    s_folder = std::make_unique<Folder>();
    s_log = std::make_unique<FileLog>();
    s_log->SetMaxLogFileSize(INT64_MAX);
    const std::string path = s_folder->File();
    s_log->Initialize(FileLog::Trace, std::wstring(path.begin(), path.end()).c_str());
}

void tearDownOurs(const benchmark::State&) {
    s_log.reset();
    s_folder.reset();
}

void ours(benchmark::State& state) {
    int number = 0;
    for (auto _ : state) {
        ++number;
        s_log->Log(FileLog::Information, kFormat, static_cast<void*>(&number), 1, 40'000LL * number, number,
                   1500);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ours)
    ->Name("LogLine/Mivra")
    ->Setup(setUpOurs)
    ->Teardown(tearDownOurs)
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime();

// The limit: the same bytes of the same line, the broken-down time kept for a second, one lock around all.
class ByHand {
public:
    explicit ByHand(const std::string& path)
        : file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666)) {}
    ~ByHand() { ::close(file); }

    __attribute__((format(printf, 2, 3))) void Log(const char* format, ...) {
        const std::lock_guard guard(lock);
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_sec != second) {
            second = now.tv_sec;
            ::localtime_r(&second, &local);
        }
        static thread_local const int s_thread = static_cast<int>(::syscall(SYS_gettid));
        int size =
            std::snprintf(line, sizeof line, "%04d-%02d-%02d %02d:%02d:%02d.%03d [%d] %s ",
                          local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                          local.tm_sec, static_cast<int>(now.tv_nsec / 1'000'000), s_thread, "INFO ");
        std::va_list arguments;
        va_start(arguments, format);
        size += std::vsnprintf(line + size, sizeof line - static_cast<std::size_t>(size), format, arguments);
        va_end(arguments);
        line[size++] = '\r';
        line[size++] = '\n';
        write(static_cast<std::size_t>(size));
    }

private:
    void write(std::size_t size) {
        struct flock range {};
        range.l_type = F_WRLCK;
        range.l_whence = SEEK_SET;
        range.l_len = 2;
        ::fcntl(file, F_OFD_SETLKW, &range);
        if (::write(file, line, size) < 0) std::abort();
        range.l_type = F_UNLCK;
        ::fcntl(file, F_OFD_SETLKW, &range);
    }

    std::mutex lock;
    time_t second = -1;
    tm local{};
    int file;
    char line[10240];
};

std::unique_ptr<ByHand> s_hand;

void byHand(benchmark::State& state) {
    int number = 0;
    for (auto _ : state) {
        ++number;
        s_hand->Log(kFormat, static_cast<void*>(&number), 1, 40'000LL * number, number, 1500);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(byHand)
    ->Name("LogLine/ByHand")
    ->Setup([](const benchmark::State&) {
        s_folder = std::make_unique<Folder>();
        s_hand = std::make_unique<ByHand>(s_folder->File());
    })
    ->Teardown([](const benchmark::State&) {
        s_hand.reset();
        s_folder.reset();
    })
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime();

std::shared_ptr<spdlog::logger> s_spdlog;

void spd(benchmark::State& state) {
    int number = 0;
    for (auto _ : state) {
        ++number;
        s_spdlog->info(kSpdFormat, static_cast<void*>(&number), 1, 40'000LL * number, number, 1500);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(spd)
    ->Name("LogLine/spdlog")
    ->Setup([](const benchmark::State&) {
        s_folder = std::make_unique<Folder>();
        s_spdlog = spdlog::basic_logger_mt("file", s_folder->File());
        s_spdlog->set_pattern("%Y-%m-%d %H:%M:%S.%e [%t] %l %v");
        s_spdlog->flush_on(spdlog::level::trace);
    })
    ->Teardown([](const benchmark::State&) {
        spdlog::drop_all();
        s_spdlog.reset();
        s_folder.reset();
    })
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime();

// A line that its level filters out.
void filtered(benchmark::State& state) {
    s_log->SetLogLevel(FileLog::Information);
    for (auto _ : state) {
        s_log->Log(FileLog::Debug, kFormat, static_cast<void*>(&state), 1, 40'000LL, 1, 1500);
    }
}
BENCHMARK(filtered)->Name("LogFiltered/Mivra")->Setup(setUpOurs)->Teardown(tearDownOurs);

}  // namespace
