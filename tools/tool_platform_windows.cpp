#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <clocale>
#include <cstdio>

#include "tools/tool_platform.h"
#include "zel/zel_fio/fio_text_windows.h"

namespace tool_platform {

std::vector<std::string> command_line(int /*argc*/, char** /*argv*/) {
    std::vector<std::string> texts;
    int count = 0;
    wchar_t** const wide = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    for (int index = 0; index < count; ++index) {
        texts.push_back(to_utf8(wide[index]));
    }
    ::LocalFree(wide);
    return texts;
}

// Older C runtimes have no locale for UTF-8.
void set_locale() {
    if (std::setlocale(LC_ALL, ".UTF-8") == nullptr) {
        std::setlocale(LC_ALL, "");
    }
}

void make_standard_output_binary() {
    ::_setmode(::_fileno(stdout), _O_BINARY);
}

}  // namespace tool_platform
