// Utilities that the suite's programmer tools share: folders, extensions, hexadecimal text,
// splitting, and error lines.
//
// Every operation here may be called from any thread; those that read the environment must not
// overlap with a change of it.

#ifndef PGM_PGM_COMMON_PGM_COMMON_H
#define PGM_PGM_COMMON_PGM_COMMON_H

#include <string>
#include <vector>

#include "pgm/pgm_common/pgm_common_export.h"

#if defined(__GNUC__)
#define PGM_COMMON_PRINTF_LIKE(format_index, first_argument) \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define PGM_COMMON_PRINTF_LIKE(format_index, first_argument)
#endif

class PGM_COMMON {
public:
    // The three folders of the suite, with forward slashes and without a separator at the end. Each
    // is the one that the host has chosen (PGM_COMMON_FOLDERS), else the one that an environment
    // variable names, read anew at every call; where that is unset or empty, the folder is found
    // from the place of the running program.
    //
    //     PGM_COMMON_PROGRAMMER_DIR      the folder beside the program's: ../common/programmer
    //     PGM_UNSHIPPED_PROGRAMMER_DIR   ../unshipped/programmer
    //     PGM_BIN_DIR                    the program's own folder
    //
    // Where ../common/programmer is not there, ../share/pgm_python/common/programmer is taken when
    // it is; and in the same way for the unshipped folder.
    //
    // The odd shape of what follows is the suite's: arguments that change nothing here (`internal`,
    // the flags of the hexadecimal text, the finer rules of splitting) are there so that a suite
    // build can put its own library in the place of this one.
    PGM_COMMON_API static std::string pgm_get_common_programmer();
    PGM_COMMON_API static std::string pgm_get_unshipped_programmer(bool internal);
    PGM_COMMON_API static std::string pgm_get_bin_directory();

    // The extension of a file name: what its last component holds from the last dot on, dot
    // included (".py" for "a/b.c.py", for ".py" itself, and "." for "b."); empty without a dot.
    PGM_COMMON_API static std::string get_extension(const std::string& file);

    // The place of the file's extension in a list of extensions (dots included), counted from 1; 0
    // when it is not in the list or there is none. The case of the letters A to Z does not matter.
    PGM_COMMON_API static int match_extension(const std::string& file,
                                              const std::vector<std::string>& extensions);

    // The bytes as hexadecimal text: two upper-case digits a byte, in the order of the bytes,
    // nothing between them. `upper_case` must be true and `prefixed` false: the suite knows other
    // forms, of which nothing here has need. The bytes are only read; that they are not const is
    // the suite's signature. Throws std::bad_alloc when memory runs out.
    PGM_COMMON_API static std::string convert_byte_array_to_standard_hex_string(
        unsigned char* bytes, unsigned long size, bool upper_case, bool prefixed);

    // The pieces between the occurrences of the whole `delimiter`, in order. With `drop_empty`,
    // empty pieces are left out. At most `most` pieces are split off; what remains is then the last
    // one (0xFFFFFFFF: no limit). An empty delimiter splits nothing. `trim` must be false, `quotes`
    // and `escape` empty and `keep_text` true: the suite has finer rules, of which nothing here has
    // need.
    PGM_COMMON_API static std::vector<std::string> split_string(
        const std::string& text, const std::string& delimiter, bool drop_empty, bool trim,
        unsigned long most, const std::vector<std::string>& quotes, const std::string& escape,
        bool keep_text);
};

class PGM_COMMON_MSG {
public:
    // Reports one line of a type (MSG_TYPE_ERROR, 3): `format` filled as printf fills it. `flags`
    // must be 0.
    PGM_COMMON_API static void print_msg(int type, int flags, const char* format, ...)
        PGM_COMMON_PRINTF_LIKE(3, 4);
};

#endif
