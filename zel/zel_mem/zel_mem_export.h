// What the zel_mem library exports, on every platform.

#ifndef ZEL_ZEL_MEM_ZEL_MEM_EXPORT_H
#define ZEL_ZEL_MEM_ZEL_MEM_EXPORT_H

#if defined(_WIN32)
#if defined(ZEL_MEM_BUILD)
#define ZEL_MEM_API __declspec(dllexport)
#elif defined(ZEL_MEM_STATIC)
#define ZEL_MEM_API
#else
#define ZEL_MEM_API __declspec(dllimport)
#endif
#else
#define ZEL_MEM_API __attribute__((visibility("default")))
#endif

#endif
