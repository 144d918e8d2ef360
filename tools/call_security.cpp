// The subcommands for certificates, keys and bitstreams.

#include <memory>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/call_support.h"
#include "zel/zel_mem/zel_mem.h"

namespace {

// The options that name key files.
struct KEY_FILES {
    explicit KEY_FILES(CLI::App& command)
        : zky(add_text(command, "--zky", "The .zky key file")),
          pem(add_text(command, "--pem", "The .pem key file")) {}
    std::shared_ptr<std::string> zky;
    std::shared_ptr<std::string> pem;
};

// Writes what an operation returned, which is null when it failed or gave no bytes.
TOOL_STATUS write_returned(const std::string& out, unsigned char* bytes, unsigned long size) {
    const std::unique_ptr<unsigned char[]> owned(bytes);
    if (bytes == nullptr && tool_has_reported()) {
        return TOOL_FAILURE;
    }
    return write_bytes(out, bytes, size);
}

void add_generate_compact_cert(CLI::App& app, int& status) {
    CLI::App& command =
        *app.add_subcommand("generate_compact_cert", "Make a compact certificate of a content");
    const auto first = add_number(command, "FIRST", "The certificate's first number");
    const auto second = add_number(command, "SECOND", "The certificate's second number");
    const auto content = add_file_content(
        command, "CONTENT", "The content: a file whose size is a positive multiple of 8");
    const KEY_FILES keys(command);
    const auto out = add_out(command);
    command.callback([=, &status] {
        unsigned long size = 0;
        unsigned char* const certificate = PGM_PYTHON_MGR::generate_compact_cert(
            size, *first, *second, data_of(*content), static_cast<unsigned long>(content->size()),
            *keys.zky, *keys.pem);
        status = write_returned(*out, certificate, size);
    });
}

void add_sign_compact_ccert(CLI::App& app, int& status) {
    CLI::App& command =
        *app.add_subcommand("sign_compact_ccert", "Sign an unsigned compact certificate");
    const auto content = add_file_content(command, "CERTIFICATE", "The unsigned certificate");
    const KEY_FILES keys(command);
    const auto out = add_out(command);
    command.callback([=, &status] {
        unsigned long size = 0;
        unsigned char* const certificate = PGM_PYTHON_MGR::sign_compact_ccert(
            size, data_of(*content), static_cast<unsigned long>(content->size()), *keys.zky,
            *keys.pem);
        status = write_returned(*out, certificate, size);
    });
}

void add_verify_compact_cert_keychain(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand("verify_compact_cert_keychain",
                                            "Verify the key chain of a compact certificate");
    const auto content = add_file_content(command, "CERTIFICATE", "The certificate");
    const auto script = std::make_shared<std::string>();
    CLI::Option* const script_option = command.add_option(
        "--script", *script, "A script of the common script folder that verifies instead");
    command.callback([=, &status] {
        const unsigned long size = static_cast<unsigned long>(content->size());
        const bool valid =
            script_option->count() > 0
                ? PGM_PYTHON_MGR::verify_compact_cert_keychain(*script, data_of(*content), size)
                : PGM_PYTHON_MGR::verify_compact_cert_keychain(data_of(*content), size);
        status = valid ? print_line("the key chain is valid") : TOOL_FAILURE;
    });
}

void add_get_zek_root_key(CLI::App& app, int& status) {
    CLI::App& command = *app.add_subcommand("get_zek_root_key", "Read the root key in a key file");
    const auto file = add_text(command, "ZEK", "The key file");
    const auto text = add_text(command, "--text", "Passed on to the script");
    const auto out = add_out(command);
    command.callback([=, &status] {
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[]> key(
            PGM_PYTHON_MGR::get_zek_root_key(*file, size, *text));
        status = size == 0 ? TOOL_FAILURE : write_bytes(*out, key.get(), size);
        MEM_DETAIL::overwrite(key.get(), size);
    });
}

void add_modify_bitstream(CLI::App& app, int& status) {
    CLI::App& command =
        *app.add_subcommand("modify_bitstream", "Have a function of a script change a bitstream");
    const auto content = add_file_content(command, "BITSTREAM", "The bitstream");
    const auto script = add_text(command, "SCRIPT", "A default script's name, or a script's path");
    const auto function = add_text(command, "FUNCTION", "The function to call");
    const auto arguments =
        add_further_arguments(command, "The script's command line, best after --");
    const auto out = add_out(command);
    command.callback([=, &status] {
        unsigned long size = 0;
        unsigned char* const bitstream = PGM_PYTHON_MGR::modify_bitstream(
            data_of(*content), static_cast<unsigned long>(content->size()), size, *script,
            *function, *arguments);
        status = write_returned(*out, bitstream, size);
    });
}

}  // namespace

void add_security_commands(CLI::App& app, int& status) {
    add_generate_compact_cert(app, status);
    add_sign_compact_ccert(app, status);
    add_verify_compact_cert_keychain(app, status);
    add_get_zek_root_key(app, status);
    add_modify_bitstream(app, status);
}
