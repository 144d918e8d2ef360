// The configuration of a Python for 64-bit Windows, as far as the headers of Python need it. For
// builds without a Python for Windows at hand.

#ifndef Py_PYCONFIG_H
#define Py_PYCONFIG_H

#include <float.h>
#include <io.h>
#include <stdio.h>

#define MS_WINDOWS
#define MS_WIN32
#define MS_WIN64
#define NT_THREADS
#define WITH_THREAD
#define COMPILER "[Windows]"
#define PLATFORM "win32"

#define Py_ENABLE_SHARED 1
#define HAVE_DECLSPEC_DLL

#define SIZEOF_SHORT 2
#define SIZEOF_INT 4
#define SIZEOF_LONG 4
#define SIZEOF_LONG_LONG 8
#define SIZEOF_VOID_P 8
#define SIZEOF_SIZE_T 8
#define SIZEOF_TIME_T 8
#define SIZEOF_OFF_T 4
#define SIZEOF_FPOS_T 8
#define SIZEOF_WCHAR_T 2
#define SIZEOF_PID_T 4
#define SIZEOF_DOUBLE 8
#define SIZEOF_FLOAT 4
#define ALIGNOF_SIZE_T 8
#define ALIGNOF_MAX_ALIGN_T 8
#define LONG_BIT 32
#define WORD_BIT 32

#define HAVE_LONG_LONG 1
#define HAVE_STDINT_H 1
#define HAVE_INTTYPES_H 1
#define HAVE_STDDEF_H 1
#define HAVE_SYS_TYPES_H 1
#define HAVE_SYS_STAT_H 1
#define HAVE_STDARG_PROTOTYPES
#define HAVE_PROTOTYPES
#define HAVE_WCHAR_H 1
#define HAVE_WCSCOLL 1
#define DOUBLE_IS_LITTLE_ENDIAN_IEEE754
#define WITH_PYMALLOC 1

#endif
