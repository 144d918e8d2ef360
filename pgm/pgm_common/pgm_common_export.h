// What the pgm_common library exports, on every platform.

#ifndef PGM_PGM_COMMON_PGM_COMMON_EXPORT_H
#define PGM_PGM_COMMON_PGM_COMMON_EXPORT_H

#if defined(_WIN32)
#if defined(PGM_COMMON_BUILD)
#define PGM_COMMON_API __declspec(dllexport)
#elif defined(PGM_COMMON_STATIC)
#define PGM_COMMON_API
#else
#define PGM_COMMON_API __declspec(dllimport)
#endif
#else
#define PGM_COMMON_API __attribute__((visibility("default")))
#endif

#endif
