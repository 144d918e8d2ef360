#include "tests/support.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include "zel/zel_py/py_reference.h"
#include "zel/zel_py/zel_py.h"

namespace {

void refuse_exit_of_a_test() {
    if (testing::UnitTest::GetInstance()->current_test_info() != nullptr) {
        std::fputs("the process ends in the midst of a test\n", stderr);
        std::_Exit(1);
    }
}

// A script that ends the process with status 0 must not pass for a test that has succeeded.
[[maybe_unused]] const bool exits_are_watched = [] {
    testing::UnitTest::GetInstance();  // must outlive the watch
    return std::atexit(refuse_exit_of_a_test) == 0;
}();

}  // namespace

RECORDING_RECEIVER::RECORDING_RECEIVER() : m_before(MSG_RECEIVER::set(this)) {}

RECORDING_RECEIVER::~RECORDING_RECEIVER() {
    MSG_RECEIVER::set(m_before);
}

void RECORDING_RECEIVER::line(int type, const std::string& text) {
    EXPECT_EQ(type, 3);
    reports.push_back("error: " + text);
}

void RECORDING_RECEIVER::post(unsigned long number, const std::string& text) {
    reports.push_back("error " + std::to_string(number) + ": " + text);
}

void RECORDING_RECEIVER::internal_error(const INTERNAL_ERROR& error) {
    reports.push_back(to_text(error));
    if (!returns_from_internal_errors) {
        throw INTERNAL_ERROR_THROWN{error};
    }
}

std::string internal_error(const std::string& text, int line) {
    return MSG_RECEIVER::to_text({text, "PGM_PYTHON", "pgm/pgm_python/pgm_python_mgr", line});
}

std::string thrown_by(const std::function<void()>& action) {
    try {
        action();
    } catch (const INTERNAL_ERROR_THROWN& thrown) {
        return MSG_RECEIVER::to_text(thrown.error);
    }
    return "nothing was thrown";
}

TEMPORARY_FOLDER::TEMPORARY_FOLDER(const std::string& name) {
    std::random_device random;
    const std::string unique = "pgm_python_" + std::to_string(random()) + std::to_string(random());
    m_path = std::filesystem::canonical(std::filesystem::temp_directory_path()) / unique /
             std::filesystem::u8path(name);
    std::filesystem::create_directories(m_path);
}

TEMPORARY_FOLDER::~TEMPORARY_FOLDER() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path.parent_path(), ignored);
}

std::string TEMPORARY_FOLDER::path() const {
    return m_path.generic_u8string();
}

std::string TEMPORARY_FOLDER::write(const std::string& name, const std::string& content) const {
    const std::filesystem::path file = m_path / std::filesystem::u8path(name);
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    EXPECT_TRUE(stream.flush()) << file;
    return file.generic_u8string();
}

std::string TEMPORARY_FOLDER::make_folder(const std::string& name) const {
    const std::filesystem::path folder = m_path / std::filesystem::u8path(name);
    std::filesystem::create_directories(folder);
    return folder.generic_u8string();
}

std::string TEMPORARY_FOLDER::read(const std::string& name) const {
    std::ifstream stream(m_path / std::filesystem::u8path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

CURRENT_FOLDER::CURRENT_FOLDER(const std::string& folder)
    : m_before(std::filesystem::current_path()) {
    std::filesystem::current_path(std::filesystem::u8path(folder));
}

CURRENT_FOLDER::~CURRENT_FOLDER() {
    std::filesystem::current_path(m_before);
}

std::string written_by(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

TEST_INSTALLATION::TEST_INSTALLATION(const std::string& name)
    : m_folder(name),
      m_common("PGM_COMMON_PROGRAMMER_DIR", common().c_str()),
      m_unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", unshipped().c_str()),
      m_bin("PGM_BIN_DIR", bin().c_str()) {
    m_folder.make_folder("common/programmer/python");
    m_folder.make_folder("unshipped/programmer/python");
    m_folder.make_folder("bin");
}

namespace {

std::string install(const TEMPORARY_FOLDER& folder, const std::string& name,
                    const std::string& source) {
    const bool compiled = name.size() > 4 && name.compare(name.size() - 4, 4, ".pyc") == 0;
    const std::string file = folder.write(name, compiled ? "" : source);
    // Compiled code kept from a source of the same size and second would be taken for this one.
    std::filesystem::remove_all(std::filesystem::u8path(file).parent_path() / "__pycache__");
    if (compiled) {
        write_compiled(file, source);
    }
    return file;
}

}  // namespace

std::string TEST_INSTALLATION::common_script(const std::string& name,
                                             const std::string& source) const {
    return install(m_folder, "common/programmer/" + name, source);
}

std::string TEST_INSTALLATION::unshipped_script(const std::string& name,
                                                const std::string& source) const {
    return install(m_folder, "unshipped/programmer/" + name, source);
}

void write_compiled(const std::string& file, const std::string& source) {
    py_initialize();
    {
        const PY_REFERENCE code =
            PY_REFERENCE::owned(Py_CompileString(source.c_str(), file.c_str(), Py_file_input));
        const PY_REFERENCE external =
            PY_REFERENCE::owned(PyImport_ImportModule("importlib._bootstrap_external"));
        const PY_REFERENCE bytes = PY_REFERENCE::owned(
            code && external
                ? PyObject_CallMethod(external.get(), "_code_to_timestamp_pyc", "O", code.get())
                : nullptr);
        if (!bytes) {
            PyErr_Print();
            ADD_FAILURE() << "cannot compile " << file;
        } else {
            const PY_REFERENCE plain = PY_REFERENCE::owned(PyBytes_FromObject(bytes.get()));
            std::ofstream stream(std::filesystem::u8path(file), std::ios::binary);
            stream.write(PyBytes_AsString(plain.get()), PyBytes_Size(plain.get()));
            EXPECT_TRUE(stream.flush()) << file;
        }
    }
    py_finalize();
}

const char send_function[] =
    "import socket\n"
    "def send(text):\n"
    "    with socket.create_connection(('127.0.0.1', 57343), 5) as channel:\n"
    "        channel.sendall(text)\n"
    "        channel.shutdown(socket.SHUT_WR)\n";

bool python_imports_again([[maybe_unused]] const std::string& module) {
#if PY_VERSION_HEX >= 0x030C0000 && PY_VERSION_HEX < 0x030D0000
    return run_program(PGM_PYTHON_PROGRAMS "/bare_sessions", {module}).status == 0;
#else
    return true;
#endif
}

const char why_python_does_not_import_again[] =
    "this Python crashes by itself when a second session of a process imports the module";

std::string kind_of_calls() {
    const char* const kind = std::getenv("PGM_PYTHON_CALLS");
    return kind == nullptr || *kind == '\0' ? "fresh" : kind;
}

bool calls_are_in_process() {
    return kind_of_calls() != "worker";
}

bool interpreter_is_running() {
    return Py_IsInitialized() != 0 && (kind_of_calls() != "kept" || PyGILState_Check() != 0);
}

namespace {

// Looks at every tuple that Python's collector knows.
void for_each_tuple(const std::function<void(PyObject*)>& look) {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    {
        const PY_REFERENCE collector = PY_REFERENCE::owned(PyImport_ImportModule("gc"));
        const PY_REFERENCE objects = PY_REFERENCE::owned(
            collector ? PyObject_CallMethod(collector.get(), "get_objects", nullptr) : nullptr);
        EXPECT_TRUE(objects);
        const Py_ssize_t count = objects ? PyList_Size(objects.get()) : 0;
        for (Py_ssize_t index = 0; index < count; ++index) {
            PyObject* const object = PyList_GetItem(objects.get(), index);
            if (PyTuple_CheckExact(object)) {
                look(object);
            }
        }
    }
    PyErr_Restore(type, value, traceback);
}

bool is_item(PyObject* object, const std::string& item) {
    if (object == nullptr || !(PyUnicode_CheckExact(object) || PyLong_CheckExact(object))) {
        return false;
    }
    const PY_REFERENCE text = PY_REFERENCE::owned(PyObject_Str(object));
    const char* const utf8 = text ? PyUnicode_AsUTF8(text.get()) : nullptr;
    PyErr_Clear();
    return utf8 != nullptr && item == utf8;
}

}  // namespace

int items_in_unfinished_tuple(int size) {
    int tuples = 0;
    int items = 0;
    for_each_tuple([&](PyObject* tuple) {
        int placed = 0;
        for (Py_ssize_t index = 0; index < PyTuple_Size(tuple); ++index) {
            placed += PyTuple_GetItem(tuple, index) == nullptr ? 0 : 1;
        }
        if (PyTuple_Size(tuple) == size && placed < size) {
            ++tuples;
            items = placed;
        }
    });
    return tuples == 1 ? items : -1;
}

int count_of_tuples_with(const std::string& item) {
    int tuples = 0;
    for_each_tuple([&](PyObject* tuple) {
        bool found = false;
        for (Py_ssize_t index = 0; index < PyTuple_Size(tuple); ++index) {
            found = found || is_item(PyTuple_GetItem(tuple, index), item);
        }
        tuples += found ? 1 : 0;
    });
    return tuples;
}

int handles_left_by_sessions(int sessions, const char* code) {
    const auto run_session = [code] {
        py_initialize();
        EXPECT_TRUE(py_eval(code));
        py_finalize();
    };
    run_session();  // opens what stays open for all
    const int before = count_of_open_handles();
    for (int session = 0; session < sessions; ++session) {
        run_session();
    }
    return count_of_open_handles() - before;
}

THREADS_BEFORE::THREADS_BEFORE() {
    // A sanitizer's own thread comes with the first one of the process, the test framework's with
    // the first trace.
    static const bool first_thread_has_been = [] {
        SCOPED_TRACE("first");
        std::thread([] {}).join();
        if (!calls_are_in_process()) {
            warm_up_workers();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return true;
    }();
    static_cast<void>(first_thread_has_been);
    m_count = count_of_threads();
}

bool THREADS_BEFORE::are_back() const {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (count_of_threads() > m_count) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

unsigned int port_of(const std::string& announced) {
    const std::size_t colon = announced.find(':');
    return static_cast<unsigned int>(std::stoul(announced.substr(colon + 1)));
}

std::string word_of(const std::string& announced) {
    return announced.substr(announced.rfind(':') + 1);
}

NOTHING_LEFT_BEHIND::NOTHING_LEFT_BEHIND() = default;

void NOTHING_LEFT_BEHIND::check() const {
    EXPECT_FALSE(interpreter_is_running());
    EXPECT_TRUE(m_threads.are_back());
    EXPECT_TRUE(port_is_free());
}
