// ORVI_EXPORT marks the declarations that liborvi exports. Everything else in
// the library is compiled with hidden visibility, so only the public API shows
// up in the shared object's dynamic symbol table.
#pragma once

#if defined(_WIN32)
#if defined(ORVI_COMPILING_LIBRARY)
#define ORVI_EXPORT __declspec(dllexport)
#elif defined(ORVI_SHARED_LIBRARY)
#define ORVI_EXPORT __declspec(dllimport)
#else
#define ORVI_EXPORT
#endif
#else
#if defined(ORVI_COMPILING_LIBRARY)
#define ORVI_EXPORT __attribute__((visibility("default")))
#else
#define ORVI_EXPORT
#endif
#endif
