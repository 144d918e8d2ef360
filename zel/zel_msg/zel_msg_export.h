// What the zel_msg library exports, on every platform.

#ifndef ZEL_ZEL_MSG_ZEL_MSG_EXPORT_H
#define ZEL_ZEL_MSG_ZEL_MSG_EXPORT_H

#if defined(_WIN32)
#if defined(ZEL_MSG_BUILD)
#define ZEL_MSG_API __declspec(dllexport)
#elif defined(ZEL_MSG_STATIC)
#define ZEL_MSG_API
#else
#define ZEL_MSG_API __declspec(dllimport)
#endif
#else
#define ZEL_MSG_API __attribute__((visibility("default")))
#endif

#endif
