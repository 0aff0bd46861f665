#pragma once

/* The library's entry points, callable from C too. MivraCommonInitialize comes before every other call and
 * must not race one; MivraCommonShutdown comes last. All but MivraCommonGetLog always return 0. */

#include <stddef.h>

#include "mivra/common/runtime/Export.h"

#ifdef __cplusplus
namespace Mivra::Common {
class FileLog;
}

extern "C" {
#endif

/// Brings the library up, with its log off. A second call does nothing.
MIVRA_API int MivraCommonInitialize(void);

/// Sends the log to the file at `path`, its full path, with a level from 1 (error) to 5 (trace). Level 0 or
/// below closes the file and ends logging.
MIVRA_API int MivraCommonSetLog(int level, const wchar_t* path);

/// The process's log; null before initialization and after shutdown. The library owns it.
#ifdef __cplusplus
MIVRA_API Mivra::Common::FileLog* MivraCommonGetLog(void);
#else
MIVRA_API struct MivraFileLog* MivraCommonGetLog(void);
#endif

/// Joins the callback threads, frees the buffer pools and ends the log. Nothing of the library may be in use,
/// nor may a callback thread call it. Without initialization it does nothing; afterwards the library may be
/// initialized again.
MIVRA_API int MivraCommonShutdown(void);

#ifdef __cplusplus
}
#endif
