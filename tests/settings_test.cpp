#include "pgm/pgm_python/settings.h"

#include <gtest/gtest.h>

#include <limits>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "tests/support.h"

namespace {

class Settings : public testing::Test {
protected:
    Settings() { PGM_PYTHON_SETTINGS::use_environment(); }
    ~Settings() override { PGM_PYTHON_SETTINGS::use_environment(); }

    // The internal error of reading the settings with a variable set.
    static std::string error_with(const char* variable, const char* value) {
        const ENVIRONMENT_VALUE entry(variable, value);
        return thrown_by([] { settings_in_force(); });
    }

    RECORDING_RECEIVER receiver;
};

TEST_F(Settings, WithoutAChoiceTheyAreTheContracts) {
    const ENVIRONMENT_VALUE calls("PGM_PYTHON_CALLS", nullptr);
    const ENVIRONMENT_VALUE reasons("PGM_PYTHON_REASONS", "");
    const SETTINGS settings = settings_in_force();
    EXPECT_EQ(settings.calls, PGM_PYTHON_CALLS::fresh);
    EXPECT_EQ(settings.call_timeout, 0);
    EXPECT_EQ(settings.reasons, PGM_PYTHON_REASONS::both);
    EXPECT_FALSE(settings.traceback);
}

TEST_F(Settings, TheEnvironmentChoosesAtEveryCall) {
    {
        const ENVIRONMENT_VALUE calls("PGM_PYTHON_CALLS", "kept");
        const ENVIRONMENT_VALUE timeout("PGM_PYTHON_CALL_TIMEOUT", "2.5");
        const ENVIRONMENT_VALUE worker("PGM_PYTHON_WORKER", "/opt/worker");
        const ENVIRONMENT_VALUE reasons("PGM_PYTHON_REASONS", "announced");
        const ENVIRONMENT_VALUE traceback("PGM_PYTHON_TRACEBACK", "1");
        const SETTINGS settings = settings_in_force();
        EXPECT_EQ(settings.calls, PGM_PYTHON_CALLS::kept);
        EXPECT_EQ(settings.call_timeout, 2.5);
        EXPECT_EQ(settings.worker, "/opt/worker");
        EXPECT_EQ(settings.reasons, PGM_PYTHON_REASONS::announced);
        EXPECT_TRUE(settings.traceback);
    }
    const ENVIRONMENT_VALUE calls("PGM_PYTHON_CALLS", "worker");
    EXPECT_EQ(settings_in_force().calls, PGM_PYTHON_CALLS::worker);
}

TEST_F(Settings, TheHostsChoiceGoesBeforeTheEnvironment) {
    const ENVIRONMENT_VALUE calls("PGM_PYTHON_CALLS", "nonsense");
    const ENVIRONMENT_VALUE timeout("PGM_PYTHON_CALL_TIMEOUT", "1");
    PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::fresh);
    PGM_PYTHON_SETTINGS::set_call_timeout(3.5);
    PGM_PYTHON_SETTINGS::set_worker("mine");
    PGM_PYTHON_SETTINGS::set_reasons(PGM_PYTHON_REASONS::announced);
    PGM_PYTHON_SETTINGS::set_traceback(true);
    const SETTINGS settings = settings_in_force();
    EXPECT_EQ(settings.calls, PGM_PYTHON_CALLS::fresh);
    EXPECT_EQ(settings.call_timeout, 3.5);
    EXPECT_EQ(settings.worker, "mine");
    EXPECT_EQ(settings.reasons, PGM_PYTHON_REASONS::announced);
    EXPECT_TRUE(settings.traceback);
    PGM_PYTHON_SETTINGS::use_environment();
    EXPECT_EQ(thrown_by([] { settings_in_force(); }),
              internal_error("PGM_PYTHON_CALLS must be fresh, kept or worker, not nonsense", 2001));
}

TEST_F(Settings, ATimeThatIsNoneMeansNoLimit) {
    for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::infinity(),
                                 std::numeric_limits<double>::quiet_NaN()}) {
        PGM_PYTHON_SETTINGS::set_call_timeout(seconds);
        EXPECT_EQ(settings_in_force().call_timeout, 0);
    }
}

TEST_F(Settings, AnotherValueIsAnInternalErrorThatNamesThem) {
    EXPECT_EQ(error_with("PGM_PYTHON_CALLS", "Fresh"),
              internal_error("PGM_PYTHON_CALLS must be fresh, kept or worker, not Fresh", 2001));
    EXPECT_EQ(error_with("PGM_PYTHON_REASONS", "none"),
              internal_error("PGM_PYTHON_REASONS must be both or announced, not none", 2002));
    for (const char* const time : {"soon", "1s", "-1", "inf", "1 2"}) {
        EXPECT_EQ(error_with("PGM_PYTHON_CALL_TIMEOUT", time),
                  internal_error(std::string("PGM_PYTHON_CALL_TIMEOUT must be a number of seconds, "
                                             "0 or more, not ") +
                                     time,
                                 2003));
    }
    EXPECT_EQ(error_with("PGM_PYTHON_TRACEBACK", "yes"),
              internal_error("PGM_PYTHON_TRACEBACK must be 0 or 1, not yes", 2004));
}

TEST_F(Settings, AnotherValueStopsAnOperationBeforeItsScriptIsLookedFor) {
    const ENVIRONMENT_VALUE calls("PGM_PYTHON_CALLS", "all");
    const std::string error =
        internal_error("PGM_PYTHON_CALLS must be fresh, kept or worker, not all", 2001);
    EXPECT_EQ(thrown_by([] { PGM_PYTHON_MGR::get_username("root"); }), error);
    const char* code[] = {"-c", "print('not run')"};
    EXPECT_EQ(thrown_by([&] { PGM_PYTHON_MGR::run_python_file(2, code); }), error);
}

// ---- Tracebacks of functions that raised.

class Tracebacks : public Settings {
protected:
    // What is printed when the function of `operation`'s script raises.
    std::string printed_by(const std::function<void()>& operation) {
        testing::internal::CaptureStderr();
        operation();
        return testing::internal::GetCapturedStderr();
    }

    TEST_INSTALLATION installation;
    const std::string script = installation.common_script(
        "python/raising.py", "def f(data):\n    raise ValueError('in the function')\n");
    unsigned long size = 0;
    const std::function<void()> call = [this] {
        PGM_PYTHON_MGR::modify_bitstream(nullptr, 0, size, script, "f", {});
    };
};

TEST_F(Tracebacks, WithoutAChoiceNoneIsPrinted) {
    EXPECT_EQ(printed_by(call), "");
    EXPECT_EQ(receiver.reports.size(), 1U);
}

TEST_F(Tracebacks, TheEnvironmentAsksForThem) {
    const ENVIRONMENT_VALUE traceback("PGM_PYTHON_TRACEBACK", "1");
    const std::string printed = printed_by(call);
    EXPECT_EQ(printed.find("Traceback (most recent call last):\n"), 0U) << printed;
    EXPECT_NE(printed.find("line 2, in f\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("ValueError: in the function\n"), std::string::npos) << printed;
    EXPECT_EQ(
        receiver.reports,
        (std::vector<std::string>{"error 20351: Fail to execute function f in file raising"}));
}

TEST_F(Tracebacks, TheHostAsksForThem) {
    PGM_PYTHON_SETTINGS::set_traceback(true);
    EXPECT_NE(printed_by(call).find("ValueError: in the function\n"), std::string::npos);
    PGM_PYTHON_SETTINGS::set_traceback(false);
    EXPECT_EQ(printed_by(call), "");
}

}  // namespace
