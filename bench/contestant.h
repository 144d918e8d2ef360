// What is compared: several ways to have a script's function called and its answer converted.

#ifndef BENCH_CONTESTANT_H
#define BENCH_CONTESTANT_H

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Bytes that a call gave back.
struct BUFFER {
    std::unique_ptr<unsigned char[]> data;
    std::size_t size = 0;
};

typedef std::map<std::string, std::string> TEXT_MAP;

// One way. Each operation is a whole call: nothing is kept from one to the next.
class CONTESTANT {
public:
    virtual ~CONTESTANT() = default;

    virtual std::string name() const = 0;

    virtual unsigned long query_opn_name(const std::string& name) = 0;
    virtual std::string get_username(const std::string& user) = 0;
    virtual BUFFER generate_compact_cert(unsigned long first_number, unsigned long second_number,
                                         const std::vector<unsigned char>& content) = 0;
    virtual BUFFER modify_bitstream(const std::vector<unsigned char>& data) = 0;
    virtual std::vector<unsigned char> get_chunks(const std::string& text,
                                                  const std::string& kind) = 0;
    // All four maps are `map`.
    virtual std::vector<unsigned char> get_hash_and_size(const std::string& kind,
                                                         const TEXT_MAP& map,
                                                         unsigned long& size) = 0;
    // Stores what a script that fails tells in `reasons`.
    virtual bool generate_rim(const std::string& family, std::vector<std::string>& reasons) = 0;
};

// The library, by its public operations.
std::unique_ptr<CONTESTANT> make_library();

// The C interface of Python, used by hand for just these calls.
std::unique_ptr<CONTESTANT> make_hand_written();

// A Python process a call, of the interpreter that the library links.
std::unique_ptr<CONTESTANT> make_process();

// pybind11's embedded interpreter; null where the installed pybind11 does not know this Python.
std::unique_ptr<CONTESTANT> make_pybind11();

// What a call of generate_rim passes beside the family.
constexpr char rim_input[] = "design.rbf";
constexpr char rim_output[] = "design.rim";
constexpr unsigned long rim_number = 0xFFFFFFFEUL;

// The folders of the installation with the benchmarks' scripts, as the environment names them.
std::string common_folder();
std::string unshipped_folder();
std::string bin_folder();

// Ends the program.
[[noreturn]] void stop(const std::string& reason);

#endif
