// What differs between platforms in files and paths; one file a platform implements it.

#ifndef ZEL_ZEL_FIO_FIO_PLATFORM_H
#define ZEL_ZEL_FIO_FIO_PLATFORM_H

#include <cstddef>
#include <string>

namespace fio_platform {

// Whether something that is not a folder stands at `name`.
bool is_file(const char* name);

// The process's current folder, with forward slashes; empty when there is none.
std::string current_directory();

// The running program's whole path, with forward slashes; empty when it cannot be told.
std::string program_file();

// The path with forward slashes wherever the platform knows another separator too.
std::string with_forward_slashes(std::string path);

// The length of the part of `path` that names its root ("/", "C:/", "//server/share/"); 0 when it
// has none. `path` has forward slashes.
std::size_t root_length(const std::string& path);

// Whether the place that `path` names depends on nothing else.
bool is_absolute(const std::string& path);

// The path with `base` (absolute) put before it, or the part of `base` that it lacks: "/b" takes
// the drive of `base`, "C:b" the whole of it when that is on the drive C and else the drive's root.
std::string join(const std::string& base, const std::string& path);

}  // namespace fio_platform

#endif
