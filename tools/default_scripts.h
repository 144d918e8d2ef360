// The suite's default scripts, as the tools list and look for them.

#ifndef TOOLS_DEFAULT_SCRIPTS_H
#define TOOLS_DEFAULT_SCRIPTS_H

#include <string>
#include <vector>

struct DEFAULT_SCRIPT {
    // By which it is run.
    std::string name;
    // The file's name without its extension, and with it.
    std::string stem;
    std::string file_name;
    // Where the folders in force have it, whether it is there or not.
    std::string path;
    bool is_installed = false;
};

// All of them, in the order of the catalogue.
std::vector<DEFAULT_SCRIPT> default_scripts();

// The path of the script that `script` names: an existing file's own, or an installed default
// script's; else `script`.
std::string path_of_script(const std::string& script);

#endif
