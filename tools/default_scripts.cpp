#include "tools/default_scripts.h"

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/script_catalogue.h"
#include "zel/zel_fio/zel_fio.h"

std::vector<DEFAULT_SCRIPT> default_scripts() {
    std::vector<DEFAULT_SCRIPT> scripts;
    for (const CATALOGUE_ROW& row : script_catalogue()) {
        DEFAULT_SCRIPT script;
        script.name = row.at(0);
        script.stem = row.at(1).empty() ? row.at(0) : row.at(1);
        script.file_name = script.stem + "." + row.at(2);
        script.path = (row.at(3) == "0" ? PGM_COMMON::pgm_get_common_programmer()
                                        : PGM_COMMON::pgm_get_unshipped_programmer(false)) +
                      "/python/" + script.file_name;
        script.is_installed = FIO_FILE_SYSTEM::exists(script.path);
        scripts.push_back(script);
    }
    return scripts;
}

std::string path_of_script(const std::string& script) {
    if (!FIO_FILE_SYSTEM::exists(script)) {
        for (const DEFAULT_SCRIPT& known : default_scripts()) {
            if (script == known.name || script == known.stem || script == known.file_name) {
                return known.is_installed ? known.path : script;
            }
        }
    }
    return script;
}
