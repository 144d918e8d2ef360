// The catalogue of the suite's default scripts. Every operation here may be called from any thread.

#ifndef PGM_PGM_PYTHON_SCRIPT_CATALOGUE_H
#define PGM_PGM_PYTHON_SCRIPT_CATALOGUE_H

#include <string>
#include <vector>

// A row of the catalogue, four texts: the name by which callers ask for the script; the file's stem
// when it is another one, else empty; the extension, "py" or "pyc"; the folder, "0" for the common
// programmer folder and "1" for the unshipped one.
// Texts throughout, the folder too, and checked row by row: the suite keeps its catalogue so, and
// the checks are part of what is reported.
typedef std::vector<std::string> CATALOGUE_ROW;

// The catalogue, in the order in which it is searched.
const std::vector<CATALOGUE_ROW>& script_catalogue();

// The path of the script that the first matching row of `catalogue` names; empty when none matches.
// Whether the script is installed is not asked. A row that is not as above is an internal error;
// after those for the number of texts and for the folder the search goes on when the report
// returns: without a match, and with the row as the match.
std::string find_in_catalogue(const std::vector<CATALOGUE_ROW>& catalogue,
                              const std::string& original_file);

#endif
