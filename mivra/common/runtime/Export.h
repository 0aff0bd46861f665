#pragma once

// What the shared library shows: MIVRA_API marks it, everything else stays hidden.

#if defined(_WIN32)
#if defined(MIVRA_BUILDING)
#define MIVRA_API __declspec(dllexport)
#else
#define MIVRA_API __declspec(dllimport)
#endif
#else
#define MIVRA_API __attribute__((visibility("default")))
#endif
