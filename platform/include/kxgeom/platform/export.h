// Symbol visibility for the kxgeom shared library.
//
// The library is built with hidden visibility; only declarations marked
// KXGEOM_API are exported. Consumers see the same macro expand to the import
// form (a no-op on ELF platforms).
#pragma once

#if defined(_WIN32)
#if defined(KXGEOM_BUILDING)
#define KXGEOM_API __declspec(dllexport)
#else
#define KXGEOM_API __declspec(dllimport)
#endif
#else
#define KXGEOM_API __attribute__((visibility("default")))
#endif
