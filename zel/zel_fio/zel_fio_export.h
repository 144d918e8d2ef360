// What the zel_fio library exports, on every platform.

#ifndef ZEL_ZEL_FIO_ZEL_FIO_EXPORT_H
#define ZEL_ZEL_FIO_ZEL_FIO_EXPORT_H

#if defined(_WIN32)
#if defined(ZEL_FIO_BUILD)
#define ZEL_FIO_API __declspec(dllexport)
#elif defined(ZEL_FIO_STATIC)
#define ZEL_FIO_API
#else
#define ZEL_FIO_API __declspec(dllimport)
#endif
#else
#define ZEL_FIO_API __attribute__((visibility("default")))
#endif

#endif
