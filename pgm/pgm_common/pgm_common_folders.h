// The host's choice of the folders in which scripts are found.

#ifndef PGM_PGM_COMMON_PGM_COMMON_FOLDERS_H
#define PGM_PGM_COMMON_PGM_COMMON_FOLDERS_H

#include <string>

#include "pgm/pgm_common/pgm_common_export.h"

// A host that knows where the suite is installed says so once, before its first operation:
//
//     PGM_COMMON_FOLDERS::set("/opt/suite/share/pgm_python/common/programmer",
//                             "/opt/suite/share/pgm_python/unshipped/programmer",
//                             "/opt/suite/bin");
class PGM_COMMON_FOLDERS {
public:
    // Chooses the folders of the whole process, from the next operation on: the common programmer
    // folder, the unshipped one and the one of the suite's programs. A folder chosen here goes
    // before the one that the environment names (PGM_COMMON_PROGRAMMER_DIR,
    // PGM_UNSHIPPED_PROGRAMMER_DIR, PGM_BIN_DIR). An empty text takes the choice back: the
    // environment counts again, and the place of the running program without it.
    //
    // The texts are paths in UTF-8, absolute or from the current folder at the time of use, with or
    // without separators at the end. They are copied. Whether there are such folders is not looked
    // at here: an operation reports a script that it does not find.
    //
    // May be called from any thread, also while an operation runs; that operation may then have
    // taken some folders from before and some from after the change. Throws std::bad_alloc when
    // memory runs out and then changes nothing.
    PGM_COMMON_API static void set(const std::string& common, const std::string& unshipped,
                                   const std::string& bin);
};

#endif
