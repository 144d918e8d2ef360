// Files and paths of the suite. Paths are byte strings; a path that this library gives out uses
// forward slashes and never ends with one, save for a root.
//
// Every operation here may be called from any thread.

#ifndef ZEL_ZEL_FIO_ZEL_FIO_H
#define ZEL_ZEL_FIO_ZEL_FIO_H

#include <string>

#include "zel/zel_fio/zel_fio_export.h"

// Questions to the file system.
class FIO_FILE_SYSTEM {
public:
    // Tells whether a file of this name exists. A folder is not a file; what cannot be asked
    // (an empty name, a folder on the way that may not be entered) does not exist.
    ZEL_FIO_API static bool exists(const std::string& name);
    ZEL_FIO_API static bool exists(const char* name);

    // The whole path of the folder that holds the running program, links resolved; empty when the
    // platform does not tell.
    ZEL_FIO_API static std::string program_directory();
};

// A path that can be made absolute and taken apart.
class FIO_PATH {
public:
    ZEL_FIO_API explicit FIO_PATH(std::string path);

    // Makes a relative path absolute against `base`, or against the process's current folder when
    // `base` is empty. "." components and doubled separators go away; ".." ones stay, because
    // what they mean depends on links. An absolute path is only tidied. When there is no current
    // folder the path stays relative.
    ZEL_FIO_API void become_absolute(const std::string& base);

    // The whole path.
    ZEL_FIO_API std::string fullpath() const;

    // The path without its last component; "." when it has just one, a root when nothing else is
    // left.
    ZEL_FIO_API std::string full_directory() const;

    // The last component, with its extension.
    ZEL_FIO_API std::string filename() const;

private:
    std::string m_path;
};

#endif
