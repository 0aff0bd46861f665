#include "mivra/common/MivraCommon.h"

#include <atomic>
#include <exception>
#include <memory>

#include "mivra/common/buffers/MediaGlobal.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/FileLog.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/common/runtime/ThreadHelper.h"
#include "mivra/common/runtime/Version.h"

using Mivra::Common::AutoLock;
using Mivra::Common::CritSec;
using Mivra::Common::FileLog;
using Mivra::Common::GlobalLog;
using Mivra::Common::LogLine;
using Mivra::Common::ThreadHelper;
using Mivra::Media::MediaGlobal;

namespace {

constinit std::atomic<bool> s_initialized{false};
// Serializes MivraCommonSetLog and shutdown. Never destroyed, so that a late caller finds it.
constinit CritSec s_libraryLock;

void joinCallbackThreads() noexcept {
    try {
        ThreadHelper::Cleanup();
    } catch (const std::exception& error) {
        LogLine(FileLog::Error, "MivraCommonShutdown: %s", error.what());
    }
}

}  // namespace

int MivraCommonInitialize() {
    if (s_initialized.exchange(true)) return 0;
    try {
        auto log = std::make_unique<FileLog>();
        log->Initialize(FileLog::Off, nullptr);
        GlobalLog::Publish(log.release());
    } catch (...) {
        s_initialized = false;  // out of memory: as if never called
    }
    return 0;
}

int MivraCommonSetLog(int level, const wchar_t* path) {
    try {
        AutoLock guard(s_libraryLock);
        FileLog* log = GlobalLog::Get();
        if (log == nullptr) return 0;
        if (level >= FileLog::Error) {
            log->Initialize(static_cast<FileLog::FileLogLevel>(level), path);
            LogLine(FileLog::Information, "SetLog: Mivra.Common v%s log enabled",
                    Mivra::Common::LibraryVersion());
        } else {
            log->Initialize(FileLog::Off, nullptr);
        }
    } catch (...) {
        // Out of memory: the log stays without a file.
    }
    return 0;
}

FileLog* MivraCommonGetLog() {
    return GlobalLog::Get();
}

int MivraCommonShutdown() {
    if (!s_initialized.exchange(false)) return 0;
    // Before the lock: a callback that still runs may set the log.
    joinCallbackThreads();
    AutoLock guard(s_libraryLock);
    MediaGlobal::Uninitialize();
    LogLine(FileLog::Information, "Mivra.Common shutdown");
    delete GlobalLog::Retire();
    return 0;
}
