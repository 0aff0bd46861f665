#include "mivra/ffmpeg/FfmpegProxy.h"

#include <cerrno>

#include "mivra/common/runtime/Annotations.h"
#include "mivra/common/runtime/CritSec.h"
#include "mivra/common/runtime/GlobalLog.h"
#include "mivra/ffmpeg/FfmpegFunctions.h"
#include "mivra/ffmpeg/FfmpegLibraries.h"
#include "mivra/platform/System.h"

namespace Mivra::FFmpeg {
namespace {

using Common::AutoLock;
using Common::CritSec;
using Common::FileLog;
using Common::LogLineAt;
using Platform::System;

constexpr char kSource[] = "FfmpegProxy";

constinit CritSec s_lock;
std::int32_t s_referenceCount MIVRA_GUARDED_BY(s_lock) = 0;
void* s_handles[kFfmpegLibraryCount] MIVRA_GUARDED_BY(s_lock) = {};

void*& handleOf(FfmpegLibraryIndex library) MIVRA_REQUIRES(s_lock) {
    return s_handles[static_cast<std::size_t>(library)];
}

bool openLibraries() MIVRA_REQUIRES(s_lock) {
    for (std::size_t i = 0; i < kFfmpegLibraryCount; ++i) {
        s_handles[i] = OpenFfmpegLibrary(kFfmpegLibraries[i]);
        if (s_handles[i] == nullptr) {
            LogLineAt(kSource, __LINE__, FileLog::Debug, "%s not found %d", kFfmpegLibraries[i].name, errno);
            return false;
        }
    }
    return true;
}

bool resolveFunctions() MIVRA_REQUIRES(s_lock) {
    for (const FfmpegFunction& function : FfmpegFunctions()) {
        errno = 0;
        void* const symbol = System().findSymbol(handleOf(function.home), function.name);
        if (symbol == nullptr) {
            LogLineAt(kSource, __LINE__, FileLog::Error, "Failed to find one or more functions %d", errno);
            return false;
        }
        function.bind(symbol);
    }
    return true;
}

void resolveOptionalFunctions() MIVRA_REQUIRES(s_lock) {
    for (const FfmpegFunction& function : FfmpegOptionalFunctions()) {
        function.bind(System().findSymbol(handleOf(function.home), function.name));
    }
}

/// A library that does not tell its version is taken at its file name's word.
bool majorsMatch() MIVRA_REQUIRES(s_lock) {
    for (std::size_t i = 0; i < kFfmpegLibraryCount; ++i) {
        const FfmpegLibrary& library = kFfmpegLibraries[i];
        void* const symbol = System().findSymbol(s_handles[i], library.versionFunction);
        if (symbol == nullptr) {
            continue;
        }
        const unsigned major = FfmpegMajor(reinterpret_cast<unsigned (*)()>(symbol)());
        if (major != library.major) {
            LogLineAt(kSource, __LINE__, FileLog::Error,
                      "FfmpegProxy::Load: %s is of major version %u, version %u is needed", library.name,
                      major, library.major);
            return false;
        }
    }
    return true;
}

// In the order of loading: each library keeps those that it needs mapped itself.
void closeLibraries() MIVRA_REQUIRES(s_lock) {
    for (void*& handle : s_handles) {
        if (handle != nullptr) {
            System().closeLibrary(handle);
            handle = nullptr;
        }
    }
}

void releaseReference() MIVRA_REQUIRES(s_lock) {
    if (--s_referenceCount >= 1) {
        return;
    }
    if (s_referenceCount < 0) {
        LogLineAt(kSource, __LINE__, FileLog::Error, "FfmpegProxy::Unload: negative reference count");
        s_referenceCount = 0;
    }
    closeLibraries();
}

}  // namespace

bool FfmpegProxy::Load() {
    AutoLock lock(s_lock);
    ++s_referenceCount;
    if (handleOf(FfmpegLibraryIndex::avutil) != nullptr) {
        return true;
    }
    if (openLibraries() && resolveFunctions() && majorsMatch()) {
        resolveOptionalFunctions();
        return true;
    }
    releaseReference();
    return false;
}

void FfmpegProxy::Unload() {
    AutoLock lock(s_lock);
    releaseReference();
}

std::int32_t FfmpegProxy::ReferenceCount() {
    AutoLock lock(s_lock);
    return s_referenceCount;
}

}  // namespace Mivra::FFmpeg
