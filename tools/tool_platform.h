// What differs between platforms in command-line tools; one file a platform implements it. Names of
// files are UTF-8. Nothing here is called by two threads at once.

#ifndef TOOLS_TOOL_PLATFORM_H
#define TOOLS_TOOL_PLATFORM_H

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace tool_platform {

// The texts of the command line as the library wants them, the program's name first.
std::vector<std::string> command_line(int argc, char** argv);

// Sets the locale in which the library converts texts to the user's own or, where the system's
// texts are not in one, to one for UTF-8.
void set_locale();

// Sets a variable of the environment for this process and those that it starts.
void set_environment(const std::string& name, const std::string& value);

// The permissions that new files of this process do not get, where the platform has such a mask.
unsigned int mask_of_new_files();
void set_mask_of_new_files(unsigned int mask);

// Whether somebody looks at the stream as it is written; of the standard output, at what
// write_to_standard_output writes.
bool standard_error_is_terminal();
bool standard_output_is_terminal();

// From now on, what scripts and the processes that they start write to standard output goes to
// standard error, and write_to_standard_output alone writes to the standard output. Call it before
// a script runs; a second call does nothing. Returns the system's reason for a failure, which
// leaves everything as it was; empty on success.
std::string divert_standard_output();

// Writes all of the bytes to the standard output at once, without a copy in a buffer: as they are,
// or with `as_text` with the line ends that the platform's texts have. Returns the system's reason
// for a failure, empty on success.
std::string write_to_standard_output(const void* bytes, std::size_t size, bool as_text);

// Opens a file for reading bytes, "-" being the standard input, of which scripts then see nothing.
// Returns null on failure, `reason` then being the system's. The caller closes the stream.
std::FILE* open_input(const std::string& file, std::string& reason);

// How write_file treats what it writes.
enum class SECRECY { OPEN, SECRET };

// Makes `size` bytes the content of `file`. Where a regular file or nothing has that name, the
// content is written under another name in the same folder, brought to the disk, and given the name
// then: the file is complete or unchanged. A link's target is the file that is meant. What was
// there hands on its permissions; a secret may only be read and written by its owner, where the
// platform knows that. Anything else of that name, such as a device or a descriptor of this
// process, is written to as it is. Returns the system's reason for a failure, empty on success.
std::string write_file(const std::string& file, const unsigned char* bytes, std::size_t size,
                       SECRECY secrecy);

// The file that holds what is at `address` of the running program; empty when the system does not
// tell.
std::string file_that_holds(const void* address);

// Ends the process silently with `status` when it is not the one that called this first: a child
// that a script has forked and that came back out of the script must not do the rest of its
// parent's work.
void leave_if_forked(int status);

}  // namespace tool_platform

#endif
