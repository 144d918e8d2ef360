// What the zel_thr library exports, on every platform.

#ifndef ZEL_ZEL_THR_ZEL_THR_EXPORT_H
#define ZEL_ZEL_THR_ZEL_THR_EXPORT_H

#if defined(_WIN32)
#if defined(ZEL_THR_BUILD)
#define ZEL_THR_API __declspec(dllexport)
#elif defined(ZEL_THR_STATIC)
#define ZEL_THR_API
#else
#define ZEL_THR_API __declspec(dllimport)
#endif
#else
#define ZEL_THR_API __attribute__((visibility("default")))
#endif

#endif
