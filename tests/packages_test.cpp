// Packages that start once in a process, in many calls of one process. Each is skipped by name
// where the linked Python does not have it; Debian's python3-numpy and python3-cryptography are
// meant.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <ostream>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "tests/support.h"
#include "zel/zel_py/py_reference.h"

namespace {

struct PACKAGE {
    const char* name;
    const char* import;
    // The body of a function of `data`, a bytearray of four bytes, that returns the same bytes.
    const char* body;
};

void PrintTo(const PACKAGE& package, std::ostream* stream) {
    *stream << package.name;
}

class Packages : public testing::TestWithParam<PACKAGE> {
protected:
    Packages() {
        // Under the kind that the tests are run with, but not the one in which packages break.
        if (kind_of_calls() == "fresh") {
            PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::kept);
        }
    }
    ~Packages() override {
        PGM_PYTHON_SETTINGS::use_environment();
        PGM_PYTHON_SETTINGS::end_kept_interpreter();
    }
};

TEST_P(Packages, WorkInFourCallsAndThenForty) {
    const PACKAGE& package = GetParam();
    const TEST_INSTALLATION installation;
#if !defined(_WIN32)
    // Another Python of the version of Debian's can use Debian's packages.
    const bool is_of_debians_version =
        std::filesystem::is_directory("/usr/lib/python3." + std::to_string(PY_MINOR_VERSION));
    const ENVIRONMENT_VALUE path(
        "PYTHONPATH", is_of_debians_version ? "/usr/lib/python3/dist-packages" : nullptr);
#endif
    const std::string code = std::string("try:\n    import ") + package.import +
                             "\nexcept ImportError as error:\n    raise SystemExit(1)";
    const char* probe[] = {"-c", code.c_str()};
    if (!PGM_PYTHON_MGR::run_python_file(2, probe)) {
        GTEST_SKIP() << "the linked Python has no " << package.import;
    }
    const std::string script = installation.common_script(
        "python/with_package.py",
        std::string("import ") + package.import + "\ndef change(data):\n" + package.body);
    RECORDING_RECEIVER receiver;
    const unsigned char data[4] = {1, 2, 3, 250};
    for (const int calls : {4, 40}) {
        int right = 0;
        for (int round = 0; round < calls; ++round) {
            unsigned long size = 0;
            const std::unique_ptr<unsigned char[]> changed(
                PGM_PYTHON_MGR::modify_bitstream(data, sizeof(data), size, script, "change", {}));
            right += changed && size == sizeof(data) && changed[0] == 1 && changed[3] == 250;
        }
        EXPECT_EQ(right, calls);
    }
    EXPECT_EQ(receiver.reports, std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(
    ThatStartOnce, Packages,
    testing::Values(
        PACKAGE{"numpy", "numpy",
                "    array = numpy.frombuffer(bytes(data), dtype=numpy.uint8)\n"
                "    assert numpy.linalg.det(numpy.eye(3)) == 1.0\n"
                "    return bytearray((array ^ 0xFF ^ 0xFF).astype(numpy.uint8).tobytes())\n"},
        PACKAGE{"cryptography", "cryptography",
                "    from cryptography.hazmat.primitives import hashes\n"
                "    from cryptography.hazmat.primitives.asymmetric import ec\n"
                "    key = ec.generate_private_key(ec.SECP384R1())\n"
                "    signature = key.sign(bytes(data), ec.ECDSA(hashes.SHA384()))\n"
                "    key.public_key().verify(signature, bytes(data), ec.ECDSA(hashes.SHA384()))\n"
                "    from cryptography import x509\n"
                "    assert x509.Name([]).rfc4514_string() == ''\n"
                "    return data\n"},
        PACKAGE{"decimal", "decimal",
                "    assert str(decimal.Decimal(1) / 3) == '0.' + '3' * 28\n"
                "    decimal.getcontext().prec = 5\n"
                "    return data\n"},
        PACKAGE{"standard", "hashlib, sqlite3, datetime, ctypes",
                "    assert hashlib.sha384(data).digest_size == 48\n"
                "    base = sqlite3.connect(':memory:')\n"
                "    assert base.execute('select 1 + 1').fetchone() == (2,)\n"
                "    base.close()\n"
                "    assert datetime.date(2020, 1, 1).year == ctypes.c_int(2020).value\n"
                "    return data\n"}),
    [](const testing::TestParamInfo<PACKAGE>& package) { return std::string(package.param.name); });

}  // namespace
