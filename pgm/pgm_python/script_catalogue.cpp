#include "pgm/pgm_python/script_catalogue.h"

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/messages.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"

std::string find_in_catalogue(const std::vector<CATALOGUE_ROW>& catalogue,
                              const std::string& original_file) {
    for (const CATALOGUE_ROW& db : catalogue) {
        if (db.size() != 4) {
            report_and_go_on({"db.size() == 4", 192});
            return std::string();
        }
        require(!db.at(0).empty(), {"db.at(0).size()", 193});
        require(db.at(2) == "py" || db.at(2) == "pyc",
                {"db.at(2) == \"py\" || db.at(2) == \"pyc\"", 194});
        const std::string& stem = db.at(1).empty() ? db.at(0) : db.at(1);
        const std::string file =
            MEM_DETAIL::stl_raw_sprintf("%s.%s", stem.c_str(), db.at(2).c_str());
        bool matches = original_file == db.at(0) || original_file == stem || original_file == file;
        if (db.at(3) != "0" && db.at(3) != "1") {
            report_and_go_on({"db.at(3) == \"0\" || db.at(3) == \"1\"", 195});
            matches = true;
        }
        if (matches) {
            const std::string folder = db.at(3) == "0"
                                           ? PGM_COMMON::pgm_get_common_programmer()
                                           : PGM_COMMON::pgm_get_unshipped_programmer(false);
            return MEM_DETAIL::stl_raw_sprintf("%s/python/%s", folder.c_str(), file.c_str());
        }
    }
    return std::string();
}

std::string PGM_PYTHON_MGR::find_default_script(std::string original_file) {
    require(!original_file.empty(), {"original_file.size()", 170});
    if (FIO_FILE_SYSTEM::exists(original_file)) {
        return original_file;
    }
    const std::string candidate = find_in_catalogue(script_catalogue(), original_file);
    return FIO_FILE_SYSTEM::exists(candidate) ? candidate : original_file;
}
