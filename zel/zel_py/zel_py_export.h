// What the zel_py library exports, on every platform.

#ifndef ZEL_ZEL_PY_ZEL_PY_EXPORT_H
#define ZEL_ZEL_PY_ZEL_PY_EXPORT_H

#if defined(_WIN32)
#if defined(ZEL_PY_BUILD)
#define ZEL_PY_API __declspec(dllexport)
#elif defined(ZEL_PY_STATIC)
#define ZEL_PY_API
#else
#define ZEL_PY_API __declspec(dllimport)
#endif
#else
#define ZEL_PY_API __attribute__((visibility("default")))
#endif

#endif
