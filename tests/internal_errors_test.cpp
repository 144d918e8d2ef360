// Every internal error that the library can report: which operation, what text, which line, and how
// it is brought about.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/script_catalogue.h"
#include "tests/pgm_python_mgr_test.h"
#include "tests/script_hooks.h"
#include "tests/support.h"
#include "zel/zel_py/zel_py.h"

namespace {

typedef std::function<void()> ACTION;

// ---- Mishaps inside Python

// Python's allocator of objects with a mishap at one allocation. Allocations count from the first
// signal of the script to the second; where `marker` is given, only those after one of at least so
// many bytes.
class ALLOCATOR_WITH_A_MISHAP {
public:
    enum class MISHAP {
        // There is no memory.
        no_memory,
        // Somebody else takes a reference to the tuple that was made last and is not yet filled.
        // Python then lets nobody place items in it.
        tuple_shared,
    };

    // `tuple_size` is the number of items of the tuple that matters.
    ALLOCATOR_WITH_A_MISHAP(MISHAP mishap, Py_ssize_t tuple_size, std::size_t marker, int at)
        : m_mishap(mishap), m_tuple_size(tuple_size), m_marker(marker), m_at(at) {
        on_script_signal = [this] { m_installed ? remove() : install(); };
        offer_script_hooks();
    }
    ~ALLOCATOR_WITH_A_MISHAP() {
        remove();
        on_script_signal = nullptr;
    }
    ALLOCATOR_WITH_A_MISHAP(const ALLOCATOR_WITH_A_MISHAP&) = delete;
    ALLOCATOR_WITH_A_MISHAP& operator=(const ALLOCATOR_WITH_A_MISHAP&) = delete;

    // Whether there were as many allocations.
    bool happened() const { return m_happened; }

private:
    static ALLOCATOR_WITH_A_MISHAP& self(void* context) {
        return *static_cast<ALLOCATOR_WITH_A_MISHAP*>(context);
    }
    static void* allocate(void* context, std::size_t size) {
        return self(context).pass_on(
            size, [&](PyMemAllocatorEx& original) { return original.malloc(original.ctx, size); });
    }
    static void* allocate_zeros(void* context, std::size_t count, std::size_t size) {
        return self(context).pass_on(count * size, [&](PyMemAllocatorEx& original) {
            return original.calloc(original.ctx, count, size);
        });
    }
    static void* reallocate(void* context, void* memory, std::size_t size) {
        return self(context).pass_on(size, [&](PyMemAllocatorEx& original) {
            return original.realloc(original.ctx, memory, size);
        });
    }
    static void release(void* context, void* memory) {
        ALLOCATOR_WITH_A_MISHAP& allocator = self(context);
        if (memory == allocator.m_tuple) {
            allocator.m_tuple = nullptr;
        }
        allocator.m_original.free(allocator.m_original.ctx, memory);
    }

    void install() {
        m_installed = true;
        m_list = PyList_New(0);
        PySys_SetObject("objects_of_the_test", m_list);
        Py_DECREF(m_list);  // lives as long as the session
        PyMem_GetAllocator(PYMEM_DOMAIN_OBJ, &m_original);
        PyMemAllocatorEx own = {this, allocate, allocate_zeros, reallocate, release};
        PyMem_SetAllocator(PYMEM_DOMAIN_OBJ, &own);
        m_inside = true;
        make_until_allocated([this] { return PyTuple_New(m_tuple_size); });
        m_tuple_bytes = m_last_size;
        m_tuple_offset = reinterpret_cast<char*>(m_last_made) - static_cast<char*>(m_last);
        m_inside = false;
        m_counts = m_marker == 0;
    }

    void remove() {
        m_counts = false;
        if (m_list != nullptr) {
            PyMem_SetAllocator(PYMEM_DOMAIN_OBJ, &m_original);
            m_list = nullptr;
        }
    }

    template <typename FUNCTION>
    void* pass_on(std::size_t size, const FUNCTION& function) {
        if (!m_inside && mishap_at(size)) {
            return nullptr;
        }
        void* const memory = function(m_original);
        m_last = memory;
        m_last_size = size;
        if (!m_inside && size == m_tuple_bytes) {
            m_tuple = memory;
        }
        return memory;
    }

    // Whether this allocation is to fail.
    bool mishap_at(std::size_t size) {
        if (m_list == nullptr || m_happened) {
            return false;
        }
        use_up_spare_objects();
        if (!m_counts) {
            m_counts = size >= m_marker;
            return false;
        }
        m_happened = ++m_count == m_at;
        if (m_happened && m_mishap == MISHAP::tuple_shared) {
            share_tuple();
        }
        return m_happened && m_mishap == MISHAP::no_memory;
    }

    // Python keeps dead tuples and dicts to use them again, without allocating.
    void use_up_spare_objects() {
        m_inside = true;
        make_until_allocated([this] { return PyTuple_New(m_tuple_size); });
        make_until_allocated([] { return PyDict_New(); });
        m_inside = false;
    }

    template <typename FUNCTION>
    void make_until_allocated(const FUNCTION& make) {
        do {
            m_last = nullptr;
            m_last_made = make();
            void* const allocated = m_last;
            const std::size_t allocated_size = m_last_size;
            PyList_Append(m_list, m_last_made);
            Py_DECREF(m_last_made);
            m_last = allocated;
            m_last_size = allocated_size;
        } while (m_last == nullptr);
    }

    void share_tuple() {
        if (m_tuple == nullptr) {
            return;
        }
        PyObject* const tuple =
            reinterpret_cast<PyObject*>(static_cast<char*>(m_tuple) + m_tuple_offset);
        if (Py_REFCNT(tuple) == 1 && PyTuple_CheckExact(tuple) &&
            PyTuple_Size(tuple) == m_tuple_size &&
            PyTuple_GET_ITEM(tuple, m_tuple_size - 1) == nullptr) {
            m_inside = true;
            PyList_Append(m_list, tuple);
            m_inside = false;
        }
    }

    const MISHAP m_mishap;
    const Py_ssize_t m_tuple_size;
    const std::size_t m_marker;
    const int m_at;
    PyMemAllocatorEx m_original = {};
    PyObject* m_list = nullptr;  // while the allocator is in force
    bool m_installed = false;
    bool m_inside = false;  // in allocations of its own
    bool m_counts = false;
    bool m_happened = false;
    int m_count = 0;
    void* m_last = nullptr;
    std::size_t m_last_size = 0;
    PyObject* m_last_made = nullptr;
    std::size_t m_tuple_bytes = 0;
    std::ptrdiff_t m_tuple_offset = 0;
    void* m_tuple = nullptr;  // the tuple made last
};

// ---- The operations

// Every function of the scripts takes any arguments and returns the value of its first, when that
// is a text.
constexpr char script_start[] =
    "import gc, test_hooks\n"
    "gc.disable()\n"
    "def answer(*a):\n"
    "    test_hooks.signal()\n"
    "    return eval(a[0]) if a and type(a[0]) is str else None\n"
    "def __getattr__(name):\n"
    "    if name[:2] == '__':\n"
    "        raise AttributeError(name)\n"
    "    test_hooks.signal()\n"
    "    return answer\n";

// The network-format arguments are made before the function is looked up.
constexpr char network_format_start[] = "test_hooks.signal()\n";

class INSTALLATION {
public:
    INSTALLATION() {
        for (const char* name : {"pgm_python_common_function.pyc", "compact_cert_sign.pyc",
                                 "rim_generator.pyc", "norvane_sign.py", "own.py", ".py"}) {
            m_installation.common_script(std::string("python/") + name, script_start);
        }
        m_installation.unshipped_script("mysql/mysql.pyc", script_start);
        for (const char* name : {"nw.py", "nw.txt", ".py"}) {
            m_installation.folder().write(std::string("common/programmernwfmt/") + name,
                                          std::string(script_start) + network_format_start);
        }
        m_installation.folder().write("common/key.zky", "");
        m_installation.folder().write("common/key.pem", "");
        m_installation.folder().write("common/tool", "");
    }

private:
    const TEST_INSTALLATION m_installation;
};

std::string beside_programmer_folder(const std::string& name) {
    return PGM_COMMON::pgm_get_common_programmer() + "/../" + name;
}

std::string own_script() {
    return PGM_COMMON::pgm_get_common_programmer() + "/python/own.py";
}

// Texts and numbers of which Python keeps no spare object.
constexpr unsigned long any_number = 0x12345678;
constexpr char any_text[] = "'a text'";
constexpr char not_utf8[] = "\xFF";
unsigned char content[16] = {};

typedef std::unique_ptr<unsigned char[]> BUFFER;

void get_username(const char* user = any_text) {
    PGM_PYTHON_MGR::get_username(user);
}

void query_opn_enum() {
    PGM_PYTHON_MGR::query_opn_enum(any_number);
}

void query_opn_name(const char* name = any_text) {
    PGM_PYTHON_MGR::query_opn_name(name);
}

void read_mif(const std::string& file = "[bytearray(), 8, 9]") {
    unsigned long width = 0;
    unsigned long depth = 0;
    unsigned long size = 0;
    BUFFER(PGM_PYTHON_MGR::read_mif(file, true, width, depth, size));
}

void generate_compact_cert(unsigned char* bytes, const std::string& zky, const std::string& pem) {
    unsigned long size = 0;
    BUFFER(
        PGM_PYTHON_MGR::generate_compact_cert(size, any_number, any_number, bytes, 16, zky, pem));
}

void generate_with_keys() {
    generate_compact_cert(content, beside_programmer_folder("key.zky"),
                          beside_programmer_folder("key.pem"));
}

void sign_compact_ccert(unsigned char* bytes = content, const std::string& zky = "",
                        const std::string& pem = "") {
    unsigned long size = 0;
    BUFFER(PGM_PYTHON_MGR::sign_compact_ccert(size, bytes, 16, zky, pem));
}

void verify_fixed(unsigned char* bytes = content) {
    PGM_PYTHON_MGR::verify_compact_cert_keychain(bytes, 16);
}

void verify_named(const char* script = "own.py", unsigned char* bytes = content) {
    PGM_PYTHON_MGR::verify_compact_cert_keychain(script, bytes, 16);
}

void get_zek_root_key(const char* file = "True", const char* other = any_text) {
    unsigned long size = 0;
    BUFFER(PGM_PYTHON_MGR::get_zek_root_key(file, size, other));
}

void modify_bitstream(const std::string& script, const char* function = "f") {
    unsigned long size = 0;
    BUFFER(PGM_PYTHON_MGR::modify_bitstream(content, 16, size, script, function, {}));
}

void modify_with_own_script() {
    modify_bitstream(own_script());
}

void get_nwfmt_data(const std::string& file, const std::string& function = "get_bram_chunks",
                    const std::string& text_1 = "[]", const std::string& text_2 = "two") {
    unsigned long size = 0;
    PGM_PYTHON_MGR manager;
    manager.get_nwfmt_data(file, function, text_1, {}, {}, text_2, {}, {}, size);
}

// A first text that is found by its length.
constexpr std::size_t marked_length = 5000;

void extract_marked() {
    get_nwfmt_data("nw.py", "get_bram_chunks", std::string(marked_length, ' ') + "[]");
}

void generate_rim(const char* rbf_file = any_text, const char* family = "family",
                  const char* output_file = "output") {
    PGM_PYTHON_MGR::generate_rim(rbf_file, family, any_number, output_file);
}

void execute_mysql(const std::vector<std::string>& arguments) {
    bool found = false;
    PGM_PYTHON_MGR::execute_mysql(arguments, found);
}

void sync_p4file(const char* folder = any_text, const char* p4source = "source") {
    PGM_PYTHON_MGR::sync_p4file(folder, p4source);
}

void run_code() {
    const char* argv[] = {"-c", "pass"};
    PGM_PYTHON_MGR::run_python_file(2, argv);
}

void run_file(const std::string& file) {
    const char* argv[] = {file.c_str()};
    PGM_PYTHON_MGR::run_python_file(1, argv);
}

// Runs the code in a session before the set-up of its search path, for `script` or without one.
void set_up_after(const char* code, const std::string& script = "") {
    INTERPRETER_SESSION session;
    EXPECT_TRUE(py_eval(code));
    if (script.empty()) {
        session.setup_system_path();
    } else {
        session.setup_system_path(script);
    }
}

std::string refusing_import_of(const std::string& module) {
    return "import builtins\n"
           "def refuse(name, *rest, original=builtins.__import__):\n"
           "    if name == '" +
           module +
           "':\n"
           "        raise ImportError('refused')\n"
           "    return original(name, *rest)\n"
           "builtins.__import__ = refuse\n";
}

// ---- The list

// How a report is brought about.
struct FORCE {
    ACTION action;
    const char* reason;  // why there is no honest way
    bool has_mishap;
    ALLOCATOR_WITH_A_MISHAP::MISHAP mishap;
    Py_ssize_t tuple_size;
    std::size_t marker;
};

FORCE by(ACTION action) {
    return {std::move(action), nullptr, false, {}, 0, 0};
}

FORCE without_memory(Py_ssize_t tuple_size, ACTION action, std::size_t marker = 0) {
    return {std::move(action), nullptr, true, ALLOCATOR_WITH_A_MISHAP::MISHAP::no_memory,
            tuple_size,        marker};
}

FORCE with_shared_tuple(Py_ssize_t tuple_size, ACTION action, std::size_t marker = 0) {
    return {std::move(action), nullptr, true, ALLOCATOR_WITH_A_MISHAP::MISHAP::tuple_shared,
            tuple_size,        marker};
}

FORCE never(const char* reason) {
    return {nullptr, reason, false, {}, 0, 0};
}

// A folder in an environment variable that cannot stand in a statement.
FORCE with_quote_in(const char* variable) {
    return by([variable] {
        const ENVIRONMENT_VALUE folder(variable, "/x/\"quoted");
        run_code();
    });
}

// A host whose own interpreter has run some code.
FORCE in_host(const char* code) {
    return by([code] {
        struct HOST {
            HOST() { Py_InitializeEx(0); }
            ~HOST() { Py_FinalizeEx(); }
        };
        // Where Python is to look for its library.
        std::string prefix;
        {
            const INTERPRETER_SESSION session(PGM_PYTHON_CALLS::fresh);
            prefix = PyUnicode_AsUTF8(PySys_GetObject("base_prefix"));
        }
        const ENVIRONMENT_VALUE home("PYTHONHOME", prefix.c_str());
        const HOST host;
        PyRun_SimpleString(code);
        get_username();
    });
}

// A setting that has no such value.
FORCE with_setting(const char* variable) {
    return by([variable] {
        const ENVIRONMENT_VALUE setting(variable, "neither");
        get_username();
    });
}

struct REPORT {
    int line;
    const char* operation;
    const char* text;
    FORCE force;
};

const FORCE literal_function = never("the function's name is a literal of the operation");
const FORCE fixed_script = never("the script's file name is fixed, with a stem");
const FORCE placed_at_once = never(
    "the tuple has just taken the item before this one, and nothing that could change it runs in "
    "between");

// The three checks of the road for one bridge.
std::vector<REPORT> road(int line, const char* operation, const ACTION& call,
                         const FORCE& function = literal_function,
                         const FORCE& module = fixed_script) {
    return {{line, operation, "Python script %s doest not exist", by([call] {
                 const TEST_INSTALLATION empty;
                 call();
             })},
            {line, operation, "Python function must be specified", function},
            {line, operation, "filename.size()", module}};
}

std::vector<REPORT> all_reports() {
    std::vector<REPORT> all;
    const auto add = [&](std::vector<REPORT> reports) {
        std::move(reports.begin(), reports.end(), std::back_inserter(all));
    };

    add({{170, "find_default_script", "original_file.size()", by([] { run_file(""); })},
         {192, "find_default_script", "db.size() == 4", by([] { find_in_catalogue({{}}, "b"); })},
         {193, "find_default_script", "db.at(0).size()", by([] {
              find_in_catalogue({{"", "", "py", "0"}}, "b");
          })},
         {194, "find_default_script", "db.at(2) == \"py\" || db.at(2) == \"pyc\"", by([] {
              find_in_catalogue({{"a", "", "txt", "0"}}, "b");
          })},
         {195, "find_default_script", "db.at(3) == \"0\" || db.at(3) == \"1\"", by([] {
              find_in_catalogue({{"a", "", "py", "2"}}, "b");
          })}});

    add({{237, "listen_python_messages", "handle != NULL",
          by([] { listen_python_messages(nullptr); })}});

    const char* const nwfmt = "get_nwfmt_data";
    const auto without_marked = [](int) {
        return without_memory(6, extract_marked, marked_length);
    };
    const auto shared_marked = [](int) {
        return with_shared_tuple(6, extract_marked, marked_length);
    };
    add({{444, nwfmt, "pArgs != nullptr", without_memory(6, [] { get_nwfmt_data("nw.py"); })},
         {449, nwfmt, "pArg != nullptr",
          by([] { get_nwfmt_data("nw.py", "get_bram_chunks", not_utf8); })},
         {450, nwfmt, "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(6, [] { get_nwfmt_data("nw.py"); })},
         {460, nwfmt, "pArg != nullptr", without_marked(1)},
         {461, nwfmt, "PyTuple_SetItem(pArgs, 1, pArg) == 0", shared_marked(1)},
         {471, nwfmt, "pArg != nullptr", without_marked(2)},
         {472, nwfmt, "PyTuple_SetItem(pArgs, 2, pArg) == 0", shared_marked(2)},
         {476, nwfmt, "pArg != nullptr",
          by([] { get_nwfmt_data("nw.py", "get_bram_chunks", "[]", not_utf8); })},
         {477, nwfmt, "PyTuple_SetItem(pArgs, 3, pArg) == 0", shared_marked(3)},
         {487, nwfmt, "pArg != nullptr", without_marked(4)},
         {488, nwfmt, "PyTuple_SetItem(pArgs, 4, pArg) == 0", shared_marked(4)},
         {498, nwfmt, "pArg != nullptr", without_marked(5)},
         {499, nwfmt, "PyTuple_SetItem(pArgs, 5, pArg) == 0", shared_marked(5)}});

    add({{600, "modify_bitstream", "Python file must be specified",
          by([] { modify_bitstream(""); })}});
    add(road(609, "modify_bitstream", modify_with_own_script,
             by([] { modify_bitstream(own_script(), ""); }), by([] {
                 modify_bitstream(PGM_COMMON::pgm_get_common_programmer() + "/python/.py");
             })));
    add({{613, "modify_bitstream", "pArgs != nullptr", without_memory(1, modify_with_own_script)},
         {615, "modify_bitstream", "pArg != nullptr", without_memory(1, modify_with_own_script)},
         {616, "modify_bitstream", "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(1, modify_with_own_script)}});

    add(road(663, "read_mif", [] { read_mif(); }));
    add({{667, "read_mif", "pArgs != NULL", without_memory(2, [] { read_mif(); })},
         {669, "read_mif", "pArg != NULL", by([] { read_mif(not_utf8); })},
         {670, "read_mif", "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(2, [] { read_mif(); })},
         {671, "read_mif", "PyTuple_SetItem(pArgs, 1, continuous ? Py_True : Py_False) == 0",
          placed_at_once},
         {676, "read_mif", "return_size == 3", by([] { read_mif("[bytearray(), 8]"); })},
         {682, "read_mif", "width_object != NULL",
          by([] { read_mif("test_hooks.unfinished([bytearray(), None, 9])"); })},
         {685, "read_mif", "depth_object != NULL",
          by([] { read_mif("test_hooks.unfinished([bytearray(), 8, None])"); })}});

    add(road(723, "query_opn_enum", query_opn_enum));
    add({{727, "query_opn_enum", "pArgs != NULL", without_memory(1, query_opn_enum)},
         {729, "query_opn_enum", "pArg != NULL", without_memory(1, query_opn_enum)},
         {730, "query_opn_enum", "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(1, query_opn_enum)}});

    add(road(771, "query_opn_name", [] { query_opn_name(); }));
    add({{775, "query_opn_name", "pArgs != NULL", without_memory(1, [] { query_opn_name(); })},
         {777, "query_opn_name", "pArg != NULL", by([] { query_opn_name(not_utf8); })},
         {778, "query_opn_name", "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(1, [] { query_opn_name(); })}});

    add(road(819, "get_username", [] { get_username(); }));
    add({{823, "get_username", "pArgs != NULL", without_memory(1, [] { get_username(); })},
         {825, "get_username", "pArg != NULL", by([] { get_username(not_utf8); })},
         {826, "get_username", "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(1, [] { get_username(); })}});

    add({{869, "get_zek_root_key", "No ZEK file is specified", by([] { get_zek_root_key(""); })}});
    add(road(886, "get_zek_root_key", [] { get_zek_root_key(); }));
    add({{890, "get_zek_root_key", "pArgs != nullptr",
          without_memory(3, [] { get_zek_root_key(); })},
         {892, "get_zek_root_key", "pArg0 != nullptr", by([] { get_zek_root_key(not_utf8); })},
         {894, "get_zek_root_key", "pArg1 != nullptr",
          by([] { get_zek_root_key("True", not_utf8); })},
         {896, "get_zek_root_key", "pArg2 != nullptr",
          without_memory(3, [] { get_zek_root_key(); })},
         {897, "get_zek_root_key", "PyTuple_SetItem(pArgs, 0, pArg0) == 0",
          with_shared_tuple(3, [] { get_zek_root_key(); })},
         {898, "get_zek_root_key", "PyTuple_SetItem(pArgs, 1, pArg1) == 0", placed_at_once},
         {899, "get_zek_root_key", "PyTuple_SetItem(pArgs, 2, pArg2) == 0", placed_at_once},
         {904, "get_zek_root_key", "PyBool_Check(pResult)", by([] { get_zek_root_key("1"); })},
         {905, "get_zek_root_key", "pResult == Py_True", by([] { get_zek_root_key("False"); })}});

    add({{941, "sync_p4file", "folder must be specified", by([] { sync_p4file(""); })},
         {942, "sync_p4file", "p4source must be specified", by([] { sync_p4file("x", ""); })}});
    add(road(951, "sync_p4file", [] { sync_p4file(); }));
    add({{959, "sync_p4file", "pArgs != NULL", without_memory(2, [] { sync_p4file(); })},
         {961, "sync_p4file", "pArg0 != NULL", by([] { sync_p4file(not_utf8); })},
         {963, "sync_p4file", "pArg1 != NULL", by([] { sync_p4file("x", not_utf8); })},
         {964, "sync_p4file", "PyTuple_SetItem(pArgs, 0, pArg0) == 0",
          with_shared_tuple(2, [] { sync_p4file(); })},
         {965, "sync_p4file", "PyTuple_SetItem(pArgs, 1, pArg1) == 0", placed_at_once}});

    const char* const zky_check =
        "zky.empty() || (PGM_COMMON::match_extension(zky.c_str(), { \".zky\" }) && "
        "FIO_FILE_SYSTEM::exists(zky.c_str()))";
    const char* const pem_check =
        "pem.empty() || (PGM_COMMON::match_extension(pem.c_str(), { \".pem\" }) && "
        "FIO_FILE_SYSTEM::exists(pem.c_str()))";
    const char* const generate = "generate_compact_cert";
    add({{1117, generate, "content != NULL && content_size > 0 && (content_size % 8) == 0",
          by([] { generate_compact_cert(nullptr, "", ""); })},
         {1118, generate, zky_check, by([] { generate_compact_cert(content, "missing.zky", ""); })},
         {1119, generate, pem_check,
          by([] { generate_compact_cert(content, "", "missing.pem"); })}});
    add(road(1130, generate, [] { generate_compact_cert(content, "", ""); }));
    add({{1138, generate, "pArgs != NULL", without_memory(5, generate_with_keys)},
         {1140, generate, "pArg0 != NULL", without_memory(5, generate_with_keys)},
         {1142, generate, "pArg1 != NULL", without_memory(5, generate_with_keys)},
         {1144, generate, "pArg2 != NULL", without_memory(5, generate_with_keys)},
         {1146, generate, "pArg3 != NULL", without_memory(5, generate_with_keys)},
         {1148, generate, "pArg4 != NULL", without_memory(5, generate_with_keys)},
         {1150, generate, "PyTuple_SetItem(pArgs, 0, pArg0) == 0",
          with_shared_tuple(5, generate_with_keys)},
         {1151, generate, "PyTuple_SetItem(pArgs, 1, pArg1) == 0", placed_at_once},
         {1152, generate, "PyTuple_SetItem(pArgs, 2, pArg2) == 0", placed_at_once},
         {1153, generate, "PyTuple_SetItem(pArgs, 3, pArg3) == 0", placed_at_once},
         {1154, generate, "PyTuple_SetItem(pArgs, 4, pArg4) == 0", placed_at_once}});

    const char* const verify = "verify_compact_cert_keychain";
    const char* const content_check =
        "content != nullptr && content_size > 0 && (content_size % 8) == 0";
    add({{1190, verify, content_check, by([] { verify_fixed(nullptr); })}});
    add(road(1199, verify, [] { verify_fixed(); }));
    add({{1207, verify, "pArgs != NULL", without_memory(1, [] { verify_fixed(); })},
         {1209, verify, "pArg != NULL", without_memory(1, [] { verify_fixed(); })},
         {1210, verify, "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(1, [] { verify_fixed(); })}});

    const char* const sign = "sign_compact_ccert";
    add({{1242, sign,
          "unsign_content != nullptr && unsign_content_size > 0 && "
          "(unsign_content_size % 8) == 0",
          by([] { sign_compact_ccert(nullptr); })},
         {1243, sign, zky_check, by([] { sign_compact_ccert(content, "missing.zky"); })},
         {1244, sign, pem_check, by([] { sign_compact_ccert(content, "", "missing.pem"); })}});
    add(road(1265, sign, [] { sign_compact_ccert(); }));
    add({{1269, sign, "pArgs != nullptr", without_memory(1, [] { sign_compact_ccert(); })},
         {1271, sign, "pArg0 != nullptr", without_memory(1, [] { sign_compact_ccert(); })},
         {1272, sign, "PyTuple_SetItem(pArgs, 0, pArg0) == 0",
          with_shared_tuple(1, [] { sign_compact_ccert(); })}});

    add({{1309, verify, "!script.empty()", by([] { verify_named(""); })},
         {1310, verify, content_check, by([] { verify_named("own.py", nullptr); })}});
    add(road(
        1324, verify, [] { verify_named(); }, literal_function, by([] { verify_named(".py"); })));
    add({{1328, verify, "pArgs != nullptr", without_memory(1, [] { verify_named(); })},
         {1330, verify, "pArg != nullptr", without_memory(1, [] { verify_named(); })},
         {1331, verify, "PyTuple_SetItem(pArgs, 0, pArg) == 0",
          with_shared_tuple(1, [] { verify_named(); })}});

    add({{1387, nwfmt, "Python file must be specified", by([] { get_nwfmt_data(""); })},
         {1390, nwfmt, "Python script %s doest not exist",
          by([] { get_nwfmt_data("missing.py"); })},
         {1391, nwfmt, "Python function must be specified",
          by([] { get_nwfmt_data("nw.py", ""); })},
         {1394, nwfmt, "Function %s is not supported", by([] { get_nwfmt_data("nw.py", "f"); })},
         {1400, nwfmt, "filename.size()", by([] { get_nwfmt_data(".py"); })},
         {1433, nwfmt, "pObj != nullptr",
          by([] { get_nwfmt_data("nw.py", "get_bram_chunks", "test_hooks.unfinished([None])"); })},
         {1443, nwfmt, "list_size == 2",
          by([] { get_nwfmt_data("nw.py", "get_bram_hash_and_size"); })},
         {1447, nwfmt, "pObj != nullptr", by([] {
              get_nwfmt_data("nw.py", "get_xcvr_hash_and_size", "test_hooks.unfinished([None, 1])");
          })},
         {1454, nwfmt, "pObj != nullptr", by([] {
              get_nwfmt_data("nw.py", "get_xcvr_hash_and_size",
                             "test_hooks.unfinished([bytearray(), None])");
          })}});

    const char* const rim = "generate_rim";
    add({{1517, rim, "!rbf_file.empty()", by([] { generate_rim(""); })},
         {1518, rim, "!family.empty()", by([] { generate_rim("x", ""); })},
         {1519, rim, "!output_file.empty()", by([] { generate_rim("x", "x", ""); })}});
    add(road(1534, rim, [] { generate_rim(); }));
    add({{1538, rim, "pArgs != nullptr", without_memory(4, [] { generate_rim(); })},
         {1540, rim, "pArg0 != nullptr", by([] { generate_rim(not_utf8); })},
         {1542, rim, "pArg1 != nullptr", by([] { generate_rim("x", not_utf8); })},
         {1544, rim, "pArg2 != nullptr", without_memory(4, [] { generate_rim(); })},
         {1546, rim, "pArg3 != nullptr", by([] { generate_rim("x", "x", not_utf8); })},
         {1548, rim, "PyTuple_SetItem(pArgs, 0, pArg0) == 0",
          with_shared_tuple(4, [] { generate_rim(); })},
         {1549, rim, "PyTuple_SetItem(pArgs, 1, pArg1) == 0", placed_at_once},
         {1550, rim, "PyTuple_SetItem(pArgs, 2, pArg2) == 0", placed_at_once},
         {1551, rim, "PyTuple_SetItem(pArgs, 3, pArg3) == 0", placed_at_once}});

    add({{1602, "execute_mysql", "mysql_file.size()", fixed_script}});

    add({{1680, "convert_char_to_wchar_t", "Argument at index %d cannot be empty string", by([] {
              execute_mysql({"x", ""});
          })},
         {1705, "convert_char_to_wchar_t", "index == wcharc",
          by([] { fill_wide_vector("a", {"b"}, 3); })},
         {1728, "delete_wchar_t", "wcharv[index] != NULL", by([] {
              const std::unique_ptr<wchar_t*[]> slots(new wchar_t*[1]());
              PGM_PYTHON_MGR_TEST::delete_wchar_t(1, slots.get());
          })},
         {1735, "delete_wchar_t", "wcharv == NULL", by([] {
              wchar_t* slot = nullptr;
              PGM_PYTHON_MGR_TEST::delete_wchar_t(0, &slot);
          })}});

    const char* const setup = "setup_system_path";
    add({{1749, setup, "py_eval(\"import sys\")",
          by([] { set_up_after(refusing_import_of("sys").c_str()); })},
         {1750, setup, "py_eval(\"import os\")",
          by([] { set_up_after(refusing_import_of("os").c_str()); })},
         {1754, setup, "py_eval(setting.c_str())", with_quote_in("PGM_COMMON_PROGRAMMER_DIR")},
         {1757, setup, "py_eval(setting.c_str())", by([] {
              set_up_after(
                  "import sys\n"
                  "class Once(list):\n"
                  "    def insert(self, at, item):\n"
                  "        if len(self) > 0:\n"
                  "            raise MemoryError('full')\n"
                  "        list.insert(self, at, item)\n"
                  "sys.path = Once()\n");
          })},
         {1760, setup, "py_eval(setting.c_str())", with_quote_in("PGM_UNSHIPPED_PROGRAMMER_DIR")},
         {1763, setup, "py_eval(setting.c_str())", with_quote_in("PGM_BIN_DIR")},
         {1779, setup, "Python file must be specified", by([] {
              INTERPRETER_SESSION session;
              session.setup_system_path("");
          })},
         {1781, setup, "Python script %s must have extension of .py or .pyc",
          by([] { run_file(beside_programmer_folder("tool")); })},
         {1785, setup, "Python script %s doest not exist",
          by([] { set_up_after("pass", "missing.py"); })},
         {1788, setup, "py_eval(\"import sys\")",
          by([] { set_up_after(refusing_import_of("sys").c_str(), own_script()); })},
         {1792, setup, "py_eval(setting.c_str())",
          by([] { set_up_after("import sys\nsys.path = None\n", own_script()); })}});
    // The settings.
    add({{2001, "any operation", "PGM_PYTHON_CALLS must be fresh, kept or worker, not %s",
          with_setting("PGM_PYTHON_CALLS")},
         {2002, "any operation", "PGM_PYTHON_REASONS must be both or announced, not %s",
          with_setting("PGM_PYTHON_REASONS")},
         {2003, "any operation",
          "PGM_PYTHON_CALL_TIMEOUT must be a number of seconds, 0 or more, not %s",
          with_setting("PGM_PYTHON_CALL_TIMEOUT")},
         {2004, "any operation", "PGM_PYTHON_TRACEBACK must be 0 or 1, not %s",
          with_setting("PGM_PYTHON_TRACEBACK")}});
    // Sessions.
    add({{2011, "any operation", "Python session is in force already", by([] {
              const INTERPRETER_SESSION session;
              get_username();
          })},
         {2012, "any operation", "order != nullptr",
          in_host("import sys\nsys.modules['os'] = None\n")},
         {2013, "any operation", "order.begin()",
          in_host("import os\nos.environ._data = None\n")}});
    return all;
}

// ---- The list is complete

typedef std::set<std::pair<int, std::string>> CHECKS;

// The checks that stand in the library's sources.
class SOURCES {
public:
    SOURCES() {
        const std::filesystem::path folder =
            std::filesystem::u8path(PGM_PYTHON_SOURCES) / "pgm" / "pgm_python";
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().extension() == ".cpp" || entry.path().extension() == ".h") {
                std::ifstream stream(entry.path(), std::ios::binary);
                take_apart(std::string(std::istreambuf_iterator<char>(stream), {}));
                find_constants();
                find_checks();
                find_bridges();
            }
        }
    }

    CHECKS checks;
    std::set<std::string> texts;

private:
    struct TOKEN {
        char kind;  // 't': a text, 'n': a number, 'w': a word, or the sign itself
        std::string value;
    };

    static bool is_word(char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '_';
    }

    void take_apart(const std::string& source) {
        m_tokens.clear();
        std::size_t at = 0;
        while (at < source.size()) {
            const char letter = source[at];
            if (source.compare(at, 2, "//") == 0) {
                at = std::min(source.find('\n', at), source.size());
            } else if (letter == '"') {
                std::string value;
                for (++at; at < source.size() && source[at] != '"'; ++at) {
                    at += source[at] == '\\' ? 1 : 0;
                    value += source[at];
                }
                ++at;
                if (!m_tokens.empty() && m_tokens.back().kind == 't') {
                    m_tokens.back().value += value;
                } else {
                    m_tokens.push_back({'t', value});
                }
            } else if (letter == '\'') {
                at = source.find('\'', source[at + 1] == '\\' ? at + 3 : at + 1) + 1;
            } else if (is_word(letter)) {
                const std::size_t start = at;
                const bool is_number = std::isdigit(static_cast<unsigned char>(letter)) != 0;
                while (at < source.size() &&
                       (is_word(source[at]) || (is_number && source[at] == '\''))) {
                    ++at;
                }
                m_tokens.push_back({is_number ? 'n' : 'w', source.substr(start, at - start)});
            } else {
                if (std::isspace(static_cast<unsigned char>(letter)) == 0) {
                    m_tokens.push_back({letter, ""});
                }
                ++at;
            }
        }
        for (const TOKEN& token : m_tokens) {
            if (token.kind == 't') {
                texts.insert(token.value);
            }
        }
    }

    // Whether the tokens from `at` on are of these kinds.
    bool are(std::size_t at, const std::string& kinds) const {
        if (at + kinds.size() > m_tokens.size()) {
            return false;
        }
        for (std::size_t index = 0; index < kinds.size(); ++index) {
            if (m_tokens[at + index].kind != kinds[index]) {
                return false;
            }
        }
        return true;
    }

    const std::string& value(std::size_t at) const { return m_tokens[at].value; }

    // NAME[] = "TEXT"
    void find_constants() {
        m_constants.clear();
        for (std::size_t at = 0; at < m_tokens.size(); ++at) {
            if (are(at, "w[]=t")) {
                m_constants[value(at)] = value(at + 4);
            }
        }
    }

    // {"TEXT", NUMBER}, {NAME, NUMBER}, fail(NUMBER, "TEXT" and report_and_go_on(NUMBER, "TEXT"
    void find_checks() {
        for (std::size_t at = 0; at < m_tokens.size(); ++at) {
            if (are(at, "{t,n}")) {
                checks.emplace(std::stoi(value(at + 3)), value(at + 1));
            } else if (are(at, "{w,n}") && m_constants.count(value(at + 1)) != 0) {
                checks.emplace(std::stoi(value(at + 3)), m_constants[value(at + 1)]);
            } else if (are(at, "w(n,t") &&
                       (value(at) == "fail" || value(at) == "report_and_go_on")) {
                checks.emplace(std::stoi(value(at + 2)), value(at + 4));
            }
        }
    }

    // BRIDGE(NUMBER), with what follows it up to the end of the statement
    void find_bridges() {
        for (std::size_t at = 0; at < m_tokens.size(); ++at) {
            if (!are(at, "w(n)") || value(at) != "BRIDGE") {
                continue;
            }
            const int line = std::stoi(value(at + 2));
            bool checks_script = true;
            std::string module_name_check = "filename.size()";
            for (; at < m_tokens.size() && m_tokens[at].kind != ';'; ++at) {
                checks_script = checks_script && value(at) != "without_script_check";
                if (value(at) == "checking_module_name_as" && are(at, "w(t)")) {
                    module_name_check = value(at + 2);
                }
            }
            checks.emplace(line, module_name_check);
            if (checks_script) {
                checks.emplace(line, "Python script %s doest not exist");
                checks.emplace(line, "Python function must be specified");
            }
        }
    }

    std::vector<TOKEN> m_tokens;
    std::map<std::string, std::string> m_constants;
};

std::string described(int line, const std::string& text) {
    return "line " + std::to_string(line) + ": " + text;
}

TEST(InternalErrorList, HoldsExactlyTheChecksOfTheSources) {
    const SOURCES sources;
    CHECKS listed;
    for (const REPORT& report : all_reports()) {
        EXPECT_TRUE(listed.emplace(report.line, report.text).second)
            << described(report.line, report.text) << " is listed twice";
        EXPECT_EQ(sources.checks.count({report.line, report.text}), 1U)
            << described(report.line, report.text) << " is not in the sources";
        EXPECT_EQ(sources.texts.count(report.text), 1U) << report.text;
    }
    for (const auto& check : sources.checks) {
        EXPECT_EQ(listed.count(check), 1U)
            << described(check.first, check.second) << " is not in the list";
    }
}

// ---- The reports come as listed

// Whether a text is what a format with at most one "%s" or "%d" gives.
bool fits(const std::string& text, const std::string& format) {
    const std::size_t place = std::min(format.find("%s"), format.find("%d"));
    if (place == std::string::npos) {
        return text == format;
    }
    const std::string end = format.substr(place + 2);
    return text.size() > place + end.size() && text.compare(0, place, format, 0, place) == 0 &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class InternalErrors : public testing::Test {
protected:
    // Whether the action reports this internal error, and no other.
    bool reports(const REPORT& report, const ACTION& action) {
        RECORDING_RECEIVER receiver;
        offer_script_hooks();
        bool reported = false;
        written_by([&] {
            try {
                action();
            } catch (const INTERNAL_ERROR_THROWN& thrown) {
                reported = thrown.error.line == report.line && fits(thrown.error.text, report.text);
                EXPECT_EQ(thrown.error.module, "PGM_PYTHON");
                EXPECT_EQ(thrown.error.source, "pgm/pgm_python/pgm_python_mgr");
            }
        });
        m_before.check();
        return reported;
    }

    // The same with a mishap at each allocation in turn.
    bool reports_with_mishap(const REPORT& report) {
        constexpr int most_allocations = 1000;
        for (int at = 1; at <= most_allocations; ++at) {
            ALLOCATOR_WITH_A_MISHAP allocator(report.force.mishap, report.force.tuple_size,
                                              report.force.marker, at);
            if (reports(report, report.force.action)) {
                return true;
            }
            if (!allocator.happened()) {
                return false;
            }
        }
        return false;
    }

    const INSTALLATION m_installation;
    const NOTHING_LEFT_BEHIND m_before;
};

TEST_F(InternalErrors, EachIsReportedWithItsTextAndLineOrHasAReasonWhyItCannotBeForced) {
    SKIP_UNLESS_IN_PROCESS("the hooks of this process are not there");
    int forced = 0;
    std::map<std::string, int> not_forced;
    const std::vector<REPORT> all = all_reports();
    for (const REPORT& report : all) {
        if (report.force.reason != nullptr) {
            ++not_forced[report.force.reason];
            continue;
        }
        const bool reported = report.force.has_mishap ? reports_with_mishap(report)
                                                      : reports(report, report.force.action);
        EXPECT_TRUE(reported) << report.operation << ", " << described(report.line, report.text);
        forced += reported ? 1 : 0;
    }
    EXPECT_EQ(not_forced[literal_function.reason], 11);
    EXPECT_EQ(not_forced[fixed_script.reason], 11);
    EXPECT_EQ(not_forced[placed_at_once.reason], 11);
    EXPECT_EQ(not_forced.size(), 3U);
    EXPECT_EQ(forced + 33, static_cast<int>(all.size()));
    // After all of them the operations still work.
    RECORDING_RECEIVER receiver;
    offer_script_hooks();
    EXPECT_EQ(PGM_PYTHON_MGR::get_username("'works'"), "works");
    EXPECT_TRUE(receiver.reports.empty());
}

}  // namespace
