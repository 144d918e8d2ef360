// What the pgm_python library exports, on every platform.

#ifndef PGM_PGM_PYTHON_PGM_PYTHON_EXPORT_H
#define PGM_PGM_PYTHON_PGM_PYTHON_EXPORT_H

#if defined(_WIN32)
#if defined(PGM_PYTHON_BUILD)
#define PGM_PYTHON_API __declspec(dllexport)
#elif defined(PGM_PYTHON_STATIC)
#define PGM_PYTHON_API
#else
#define PGM_PYTHON_API __declspec(dllimport)
#endif
#else
#define PGM_PYTHON_API __attribute__((visibility("default")))
#endif

#endif
