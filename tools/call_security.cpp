// The subcommands for certificates, keys and bitstreams.

#include <memory>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tools/call_support.h"
#include "tools/default_scripts.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"

namespace {

// The options that name key files.
struct KEY_FILES {
    explicit KEY_FILES(CLI::App& command)
        : zky(add_key_file(command, "--zky", ".zky", "The .zky key file")),
          pem(add_key_file(command, "--pem", ".pem", "The .pem key file")) {}
    std::shared_ptr<std::string> zky;
    std::shared_ptr<std::string> pem;
};

// Takes what an operation returned, which is null when it failed or gave no bytes.
void answer_returned(CALL& call, const std::string& out, unsigned char* bytes, unsigned long size) {
    const std::unique_ptr<unsigned char[]> owned(bytes);
    if (bytes == nullptr) {
        call.fail("the script gave no bytes");
    } else {
        call.answer(out, bytes, size);
    }
}

void add_generate_compact_cert(CLI::App& app, CALL& call) {
    CLI::App& command =
        *app.add_subcommand("generate_compact_cert", "Make a compact certificate of a content");
    const auto first = add_number(command, "FIRST", "The certificate's first number");
    const auto second = add_number(command, "SECOND", "The certificate's second number");
    const auto content = add_certificate(
        command, call, "CONTENT", "The content: a file whose size is a positive multiple of 8");
    const KEY_FILES keys(command);
    const auto out = add_out(command, call);
    on_call(command, call, [=, &call] {
        unsigned long size = 0;
        require_common_script("/python/compact_cert_sign.pyc");
        unsigned char* const certificate = PGM_PYTHON_MGR::generate_compact_cert(
            size, *first, *second, data_of(*content), static_cast<unsigned long>(content->size()),
            *keys.zky, *keys.pem);
        answer_returned(call, *out, certificate, size);
    });
}

void add_sign_compact_ccert(CLI::App& app, CALL& call) {
    CLI::App& command =
        *app.add_subcommand("sign_compact_ccert", "Sign an unsigned compact certificate");
    const auto content = add_certificate(command, call, "CERTIFICATE", "The unsigned certificate");
    const KEY_FILES keys(command);
    const auto out = add_out(command, call);
    on_call(command, call, [=, &call] {
        unsigned long size = 0;
        require_common_script("/python/norvane_sign.py");
        unsigned char* const certificate = PGM_PYTHON_MGR::sign_compact_ccert(
            size, data_of(*content), static_cast<unsigned long>(content->size()), *keys.zky,
            *keys.pem);
        answer_returned(call, *out, certificate, size);
    });
}

void add_verify_compact_cert_keychain(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand("verify_compact_cert_keychain",
                                            "Verify the key chain of a compact certificate");
    const auto content = add_certificate(command, call, "CERTIFICATE", "The certificate");
    const auto script =
        add_name(command, "--script", "A script of the common script folder that verifies instead");
    on_call(command, call, [=, &call] {
        require_script_extension("--script", *script);
        require_common_script("/python/" + (script->empty() ? "compact_cert_sign.pyc" : *script));
        const unsigned long size = static_cast<unsigned long>(content->size());
        const bool valid =
            script->empty()
                ? PGM_PYTHON_MGR::verify_compact_cert_keychain(data_of(*content), size)
                : PGM_PYTHON_MGR::verify_compact_cert_keychain(*script, data_of(*content), size);
        if (valid) {
            call.answer_done("the key chain is valid");
        }
    });
}

// The size of every root key, whatever size was told.
constexpr std::size_t root_key_size = 32;

// A key on the free store, overwritten before it is released.
struct KEY_RELEASE {
    void operator()(unsigned char* key) const {
        MEM_DETAIL::overwrite(key, root_key_size);
        delete[] key;
    }
};

void add_get_zek_root_key(CLI::App& app, CALL& call) {
    CLI::App& command = *app.add_subcommand("get_zek_root_key", "Read the root key in a key file");
    const auto file = add_path(command, "ZEK", "The key file");
    const auto text = add_text(command, "--text", "Passed on to the script");
    const auto out = add_out(command, call);
    on_call(command, call, [=, &call] {
        require_common_script("/python/pgm_python_common_function.pyc");
        unsigned long size = 0;
        const std::unique_ptr<unsigned char[], KEY_RELEASE> key(
            PGM_PYTHON_MGR::get_zek_root_key(*file, size, *text));
        if (size > 0) {
            call.answer(*out, key.get(), size, tool_platform::SECRECY::SECRET);
        }
    });
}

void add_modify_bitstream(CLI::App& app, CALL& call) {
    CLI::App& command =
        *app.add_subcommand("modify_bitstream", "Have a function of a script change a bitstream");
    const auto content = add_file_content(command, call, "BITSTREAM", "The bitstream");
    const auto script = add_path(command, "SCRIPT", "A default script's name, or a script's path");
    const auto function = add_name(command, "FUNCTION", "The function to call");
    const auto arguments =
        add_further_arguments(command, "The script's command line, best after --");
    const auto out = add_out(command, call);
    on_call(command, call, [=, &call] {
        const std::string file = path_of_script(*script);
        if (!FIO_FILE_SYSTEM::exists(file)) {
            throw CLI::ValidationError(
                "SCRIPT", "'" + *script + "' is neither a file nor an installed default script");
        }
        require_script_extension("SCRIPT", file);
        unsigned long size = 0;
        unsigned char* const bitstream = PGM_PYTHON_MGR::modify_bitstream(
            data_of(*content), static_cast<unsigned long>(content->size()), size, *script,
            *function, *arguments);
        answer_returned(call, *out, bitstream, size);
    });
}

}  // namespace

void add_security_commands(CLI::App& app, CALL& call) {
    add_generate_compact_cert(app, call);
    add_sign_compact_ccert(app, call);
    add_verify_compact_cert_keychain(app, call);
    add_get_zek_root_key(app, call);
    add_modify_bitstream(app, call);
}
