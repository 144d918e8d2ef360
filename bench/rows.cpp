#include "bench/rows.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr std::size_t kib = 1024;
constexpr std::size_t mib = 1024 * kib;

void expect(bool condition, const CONTESTANT& contestant, const char* what) {
    if (!condition) {
        stop(contestant.name() + ": wrong answer of " + what);
    }
}

// Bytes that look like chance, the same ones every time. Those of the last size are kept.
const std::vector<unsigned char>& sample(std::size_t size) {
    static std::vector<unsigned char> bytes;
    if (bytes.size() != size) {
        bytes = std::vector<unsigned char>(size);
        std::uint32_t state = 1;
        for (unsigned char& byte : bytes) {
            state = state * 1664525U + 1013904223U;
            byte = static_cast<unsigned char>(state >> 24);
        }
    }
    return bytes;
}

bool is_same(const BUFFER& buffer, const std::vector<unsigned char>& bytes) {
    return buffer.size == bytes.size() &&
           std::memcmp(buffer.data.get(), bytes.data(), bytes.size()) == 0;
}

// Whether the ends are the same.
bool looks_same(const BUFFER& buffer, const std::vector<unsigned char>& bytes) {
    return buffer.size == bytes.size() && buffer.data[0] == bytes.front() &&
           buffer.data[buffer.size - 1] == bytes.back();
}

ROW repeated(ROW row) {
    row.check = row.work;
    return row;
}

ROW query_row() {
    return repeated({"query_opn_name", 0, 0, 5, 41, nullptr, [](CONTESTANT& contestant) {
                         expect(contestant.query_opn_name("1A2B3C") == 0x1A2B3C, contestant,
                                "query_opn_name");
                     }});
}

ROW username_row() {
    return repeated({"get_username", 0, 0, 5, 41, nullptr, [](CONTESTANT& contestant) {
                         expect(contestant.get_username("somebody") == "user somebody", contestant,
                                "get_username");
                     }});
}

ROW rim_row(const std::string& name, const std::string& family, int calls, int rounds,
            bool succeeds, const std::vector<std::string>& expected) {
    return repeated({name, 0, 0, calls, rounds, nullptr, [=](CONTESTANT& contestant) {
                         std::vector<std::string> reasons;
                         const bool made = contestant.generate_rim(family, reasons);
                         expect(made == succeeds && reasons == expected, contestant,
                                "generate_rim");
                     }});
}

ROW certificate_row(const std::string& size_name, std::size_t size, int calls, int rounds) {
    return {"generate_compact_cert, " + size_name,
            size,
            size,
            calls,
            rounds,
            [size](CONTESTANT& contestant) {
                const BUFFER certificate = contestant.generate_compact_cert(1, 7, sample(size));
                expect(is_same(certificate, sample(size)), contestant, "generate_compact_cert");
            },
            [size](CONTESTANT& contestant) {
                const BUFFER certificate = contestant.generate_compact_cert(2, 7, sample(size));
                // The first eight digits of the hexadecimal text.
                char digits[9];
                std::snprintf(digits, sizeof digits, "%02X%02X%02X%02X", sample(size)[0],
                              sample(size)[1], sample(size)[2], sample(size)[3]);
                expect(
                    certificate.size == size && std::memcmp(certificate.data.get(), digits, 8) == 0,
                    contestant, "generate_compact_cert");
            }};
}

ROW bitstream_row(const std::string& size_name, std::size_t size, int calls, int rounds) {
    return {"modify_bitstream, " + size_name,
            size,
            size,
            calls,
            rounds,
            [size](CONTESTANT& contestant) {
                expect(is_same(contestant.modify_bitstream(sample(size)), sample(size)), contestant,
                       "modify_bitstream");
            },
            [size](CONTESTANT& contestant) {
                expect(looks_same(contestant.modify_bitstream(sample(size)), sample(size)),
                       contestant, "modify_bitstream");
            }};
}

ROW chunk_row(const std::string& name, std::size_t count, std::size_t size, int calls, int rounds) {
    const std::string request = std::to_string(count) + " " + std::to_string(size);
    return {"get_nwfmt_data, " + name,
            0,
            count * size,
            calls,
            rounds,
            [=](CONTESTANT& contestant) {
                const std::vector<unsigned char> data = contestant.get_chunks(request, "distinct");
                bool right = data.size() == count * size;
                for (std::size_t index = 0; right && index < data.size(); ++index) {
                    right = data[index] == index / size % 251;
                }
                expect(right, contestant, "get_nwfmt_data");
            },
            [=](CONTESTANT& contestant) {
                const std::vector<unsigned char> data = contestant.get_chunks(request, "");
                expect(data.size() == count * size && data.front() == 7 && data.back() == 7,
                       contestant, "get_nwfmt_data");
            }};
}

const TEXT_MAP& sample_map() {
    static const TEXT_MAP map = [] {
        TEXT_MAP texts;
        for (int index = 0; index < 10000; ++index) {
            texts["register " + std::to_string(index)] = "value " + std::to_string(index * 7);
        }
        return texts;
    }();
    return map;
}

ROW map_row() {
    return {"get_nwfmt_data, 4 maps of 10,000 entries",
            0,
            0,
            2,
            21,
            [](CONTESTANT& contestant) {
                std::string texts;
                for (const auto& entry : sample_map()) {
                    texts += entry.first + entry.second;
                }
                texts = texts + texts + texts + texts;
                unsigned long size = 0;
                const std::vector<unsigned char> hash =
                    contestant.get_hash_and_size("texts", sample_map(), size);
                expect(size == 40000 && std::string(hash.begin(), hash.end()) == texts, contestant,
                       "get_nwfmt_data");
            },
            [](CONTESTANT& contestant) {
                unsigned long size = 0;
                const std::vector<unsigned char> hash =
                    contestant.get_hash_and_size("", sample_map(), size);
                expect(size == 40000 && hash.size() == 32, contestant, "get_nwfmt_data");
            }};
}

}  // namespace

std::vector<ROW> make_rows() {
    const std::vector<std::string> reasons = {"the first reason", "the second reason"};
    return {
        query_row(),
        username_row(),
        rim_row("generate_rim", "example", 5, 41, true, {}),
        rim_row("generate_rim that fails with reasons", "refused", 5, 21, false, reasons),
        rim_row("generate_rim that fails without reasons", "broken", 1, 5, false, {}),
        certificate_row("1 KiB", kib, 5, 41),
        certificate_row("1 MiB", mib, 5, 31),
        certificate_row("16 MiB", 16 * mib, 1, 31),
        bitstream_row("1 KiB", kib, 5, 41),
        bitstream_row("1 MiB", mib, 5, 31),
        bitstream_row("16 MiB", 16 * mib, 1, 31),
        bitstream_row("64 MiB", 64 * mib, 1, 31),
        chunk_row("10,000 chunks of 64 bytes", 10000, 64, 5, 31),
        chunk_row("4 chunks of 16 MiB", 4, 16 * mib, 1, 31),
        map_row(),
    };
}
