// Symbol visibility for the shared library: only what carries ELATECTWN4_API
// is exported; everything else stays internal to libelatectwn4.so.
#pragma once

#if defined(ELATECTWN4_STATIC)
#define ELATECTWN4_API
#elif defined(__GNUC__)
#define ELATECTWN4_API __attribute__((visibility("default")))
#else
#define ELATECTWN4_API
#endif
