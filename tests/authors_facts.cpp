// Tells what the library itself does, for the test that compares the authors' description with it.
//
//     authors_facts catalogue     the rows of the catalogue, each "NAME FILE FOLDER"
//     authors_facts channel       the back channel: port, limit, and the delimiter in hexadecimal
//     authors_facts calls         reads calls from standard input, one a line, and answers each
//
// A call is the operation's name and its values, parted by blanks: each value is "x" and the
// hexadecimal form of its bytes; a map is KEY=VALUE,KEY=VALUE. The answer is lines: "value V" for
// each result, in the same form or as a number, or "null"; "report x..." for each message; "end".

#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/script_catalogue.h"
#include "tests/support.h"

namespace {

std::string to_hex(const void* bytes, std::size_t size) {
    std::string text = "x";
    for (std::size_t index = 0; index < size; ++index) {
        constexpr char digits[] = "0123456789abcdef";
        const unsigned char byte = static_cast<const unsigned char*>(bytes)[index];
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string from_hex(const std::string& text) {
    std::string bytes;
    for (std::size_t at = 1; at + 1 < text.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

// The values of a call, taken one after the other.
class VALUES {
public:
    explicit VALUES(const std::string& line) {
        std::istringstream words(line);
        words >> m_operation;
        for (std::string word; words >> word;) {
            m_values.push_back(from_hex(word));
        }
    }

    const std::string& operation() const { return m_operation; }

    std::string text() { return m_values.at(m_next++); }
    unsigned long number() { return static_cast<unsigned long>(std::stoll(text())); }
    bool flag() { return text() == "1"; }
    // Stays with this object.
    std::string& bytes() { return m_values.at(m_next++); }
    std::map<std::string, std::string> map() {
        std::map<std::string, std::string> entries;
        std::istringstream stream(text());
        for (std::string entry; std::getline(stream, entry, ',');) {
            entries[entry.substr(0, entry.find('='))] = entry.substr(entry.find('=') + 1);
        }
        return entries;
    }
    std::vector<std::string> rest() {
        return {m_values.begin() + static_cast<std::ptrdiff_t>(m_next), m_values.end()};
    }

private:
    std::string m_operation;
    std::vector<std::string> m_values;
    std::size_t m_next = 0;
};

unsigned char* data_of(std::string& bytes) {
    return reinterpret_cast<unsigned char*>(&bytes[0]);
}

void tell(const std::string& value) {
    std::cout << "value " << value << '\n';
}

void tell_text(const std::string& text) {
    tell(to_hex(text.data(), text.size()));
}

void tell_bytes(unsigned char* bytes, unsigned long size) {
    const std::unique_ptr<unsigned char[]> owner(bytes);
    tell(bytes == nullptr ? "null" : to_hex(bytes, size));
}

// What a result holds that was not set.
constexpr unsigned long not_set = 0x55555555;

std::string number_or_none(unsigned long number) {
    return number == not_set ? "none" : std::to_string(number);
}

void call(VALUES& values) {
    const std::string& operation = values.operation();
    unsigned long size = 0;
    if (operation == "get_username") {
        tell_text(PGM_PYTHON_MGR::get_username(values.text()));
    } else if (operation == "query_opn_enum") {
        tell_text(PGM_PYTHON_MGR::query_opn_enum(values.number()));
    } else if (operation == "query_opn_name") {
        tell(std::to_string(PGM_PYTHON_MGR::query_opn_name(values.text())));
    } else if (operation == "read_mif") {
        unsigned long width = not_set;
        unsigned long depth = not_set;
        const std::string file = values.text();
        unsigned char* const image =
            PGM_PYTHON_MGR::read_mif(file, values.flag(), width, depth, size);
        tell_bytes(image, size);
        tell(number_or_none(width));
        tell(number_or_none(depth));
    } else if (operation == "generate_compact_cert") {
        const unsigned long first = values.number();
        const unsigned long second = values.number();
        std::string& content = values.bytes();
        const std::string zky = values.text();
        unsigned char* const made = PGM_PYTHON_MGR::generate_compact_cert(
            size, first, second, data_of(content), content.size(), zky, values.text());
        tell_bytes(made, size);
    } else if (operation == "sign_compact_ccert") {
        std::string& content = values.bytes();
        const std::string zky = values.text();
        unsigned char* const made = PGM_PYTHON_MGR::sign_compact_ccert(
            size, data_of(content), content.size(), zky, values.text());
        tell_bytes(made, size);
    } else if (operation == "verify_compact_cert_keychain") {
        std::string& content = values.bytes();
        tell(std::to_string(static_cast<int>(
            PGM_PYTHON_MGR::verify_compact_cert_keychain(data_of(content), content.size()))));
    } else if (operation == "verify_compact_cert_keychain_script") {
        const std::string script = values.text();
        std::string& content = values.bytes();
        tell(std::to_string(static_cast<int>(PGM_PYTHON_MGR::verify_compact_cert_keychain(
            script, data_of(content), content.size()))));
    } else if (operation == "get_zek_root_key") {
        const std::string file = values.text();
        unsigned char* const key = PGM_PYTHON_MGR::get_zek_root_key(file, size, values.text());
        tell_bytes(key, size);
    } else if (operation == "modify_bitstream") {
        std::string& data = values.bytes();
        const std::string file = values.text();
        const std::string function = values.text();
        unsigned char* const changed = PGM_PYTHON_MGR::modify_bitstream(
            data_of(data), data.size(), size, file, function, values.rest());
        tell_bytes(changed, size);
    } else if (operation == "get_nwfmt_data") {
        const std::string file = values.text();
        const std::string function = values.text();
        const std::string text_1 = values.text();
        const auto dict_1 = values.map();
        const auto dict_2 = values.map();
        const std::string text_2 = values.text();
        const auto dict_3 = values.map();
        unsigned long size_out = not_set;
        const std::vector<unsigned char> data = PGM_PYTHON_MGR().get_nwfmt_data(
            file, function, text_1, dict_1, dict_2, text_2, dict_3, values.map(), size_out);
        tell(to_hex(data.data(), data.size()));
        tell(number_or_none(size_out));
    } else if (operation == "generate_rim") {
        const std::string file = values.text();
        const std::string family = values.text();
        const unsigned long number = values.number();
        tell(std::to_string(
            static_cast<int>(PGM_PYTHON_MGR::generate_rim(file, family, number, values.text()))));
    } else if (operation == "execute_mysql") {
        bool found = false;
        tell_text(PGM_PYTHON_MGR::execute_mysql(values.rest(), found));
    } else if (operation == "sync_p4file") {
        const std::string folder = values.text();
        tell_text(PGM_PYTHON_MGR::sync_p4file(folder, values.text()));
    } else {
        std::cerr << "no operation " << operation << '\n';
        std::exit(2);
    }
}

void tell_catalogue() {
    for (const CATALOGUE_ROW& row : script_catalogue()) {
        std::cout << row.at(0) << ' ' << (row.at(1).empty() ? row.at(0) : row.at(1)) << '.'
                  << row.at(2) << ' ' << (row.at(3) == "0" ? "common" : "unshipped") << '\n';
    }
}

void answer_calls() {
    for (std::string line; std::getline(std::cin, line);) {
        VALUES values(line);
        RECORDING_RECEIVER receiver;
        try {
            call(values);
        } catch (const INTERNAL_ERROR_THROWN&) {
            tell("thrown");
        }
        for (const std::string& report : receiver.reports) {
            std::cout << "report " << to_hex(report.data(), report.size()) << '\n';
        }
        std::cout << "end" << std::endl;
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "catalogue") {
        tell_catalogue();
    } else if (what == "channel") {
        std::cout << back_channel_service << ' ' << back_channel_limit << ' '
                  << to_hex(back_channel_delimiter, sizeof back_channel_delimiter - 1) << '\n';
    } else if (what == "calls") {
        answer_calls();
    } else {
        return 2;
    }
}
