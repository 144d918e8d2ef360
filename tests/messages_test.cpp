#include "pgm/pgm_python/messages.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "tests/pgm_python_mgr_test.h"
#include "tests/support.h"
#include "zel/zel_mem/zel_mem.h"

namespace {

TEST(Messages, FiveNumbersAreRegisteredInOrderWithPostTypeZero) {
    const std::vector<unsigned long> expected = {20246, 20259, 20351, 20354, 20353};
    EXPECT_EQ(MSG_ID_REGISTRAR::registered(), expected);
    for (const unsigned long id : expected) {
        EXPECT_EQ(MSG_ID_REGISTRAR::type_of(id), 0) << id;
    }
    EXPECT_EQ(MSG_ID_REGISTRAR::type_of(20352), -1);
}

TEST(Messages, TheModuleIsEnteredWhileTheLibraryIsLoaded) {
    EXPECT_TRUE(MEM_INITIALIZER::is_loaded("PGM_PYTHON"));
    EXPECT_FALSE(MEM_INITIALIZER::is_loaded("PGM_PYTHON_OTHER"));
}

TEST(Messages, AnExecutionFailureNamesFunctionAndFile) {
    const std::unique_ptr<MSG_E> message(make_execution_failure_msg("run", "a.py"));
    EXPECT_EQ(message->id(), 20351UL);
    EXPECT_EQ(message->text(), "Fail to execute function run in file a.py");
    EXPECT_EQ(message->name(), "EPGM_PYTHON_PYTHON_EXECUTION_FAILURE");
}

TEST(Messages, AFileExecutionFailureNamesTheFile) {
    const std::unique_ptr<MSG_E> message(make_execution_failure_file_msg("/x/a.py"));
    EXPECT_EQ(message->id(), 20354UL);
    EXPECT_EQ(message->text(), "Fail to execute file /x/a.py");
    EXPECT_EQ(message->name(), "EPGM_PYTHON_PYTHON_EXECUTION_FAILURE_FILE");
}

TEST(Messages, AReasonIsItsWholeText) {
    const std::unique_ptr<MSG_E> message(make_execution_failure_reason_msg("no key / %1!s! 100%"));
    EXPECT_EQ(message->id(), 20353UL);
    EXPECT_EQ(message->text(), "no key / %1!s! 100%");
    EXPECT_EQ(message->name(), "EPGM_PYTHON_PYTHON_EXECUTION_FAILURE_REASON");
}

TEST(Messages, ArgumentsThatLookLikePlaceholdersStayAsTheyAre) {
    const std::unique_ptr<MSG_E> message(make_execution_failure_msg("%2!s!", "%1!s!"));
    EXPECT_EQ(message->text(), "Fail to execute function %2!s! in file %1!s!");
}

TEST(Messages, AnInternalErrorCarriesModuleSourceAndLine) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(thrown_by([] {
                  fail({"pArgs != nullptr", 77});
              }),
              "internal error: pArgs != nullptr "
              "[PGM_PYTHON, pgm/pgm_python/pgm_python_mgr, line 77]");
    EXPECT_EQ(thrown_by([] { fail(78, "Python script %s doest not exist", "a%sb"); }),
              internal_error("Python script a%sb doest not exist", 78));
}

TEST(Messages, AConditionThatHoldsReportsNothing) {
    RECORDING_RECEIVER receiver;
    require(true, {"true", 1});
    EXPECT_TRUE(receiver.reports.empty());
    EXPECT_EQ(thrown_by([] { require(false, {"false", 2}); }), internal_error("false", 2));
}

TEST(MessagesDeathTest, AReceiverThatReturnsFromAFatalReportStillEndsTheProcess) {
    EXPECT_DEATH(
        {
            RECORDING_RECEIVER receiver;
            receiver.returns_from_internal_errors = true;
            fail({"never", 1});
        },
        "");
    EXPECT_DEATH(
        {
            RECORDING_RECEIVER receiver;
            receiver.returns_from_internal_errors = true;
            fail(1, "%s", "never");
        },
        "");
}

TEST(MessagesDeathTest, WithoutAReceiverAReportIsPrintedAndTheProcessAborts) {
    EXPECT_DEATH(fail({"list_size == 2", 1443}),
                 "^internal error: list_size == 2 "
                 "\\[PGM_PYTHON, pgm/pgm_python/pgm_python_mgr, line 1443\\]\n");
}

TEST(Messages, AReportThatGoesOnReturnsWhenTheReceiverReturns) {
    RECORDING_RECEIVER receiver;
    receiver.returns_from_internal_errors = true;
    report_and_go_on({"index == wcharc", 1705});
    report_and_go_on(1680, "Argument at index %d cannot be empty string", 4);
    const std::vector<std::string> expected = {
        internal_error("index == wcharc", 1705),
        internal_error("Argument at index 4 cannot be empty string", 1680)};
    EXPECT_EQ(receiver.reports, expected);
}

TEST(PrintPythonError, WithoutAPendingErrorNothingIsPrinted) {
    testing::internal::CaptureStderr();
    {
        INTERPRETER_SESSION session;
        PGM_PYTHON_MGR_TEST::print_python_error();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(PrintPythonError, APendingErrorIsPrintedWithItsTracebackAndCleared) {
    testing::internal::CaptureStderr();
    {
        INTERPRETER_SESSION session;
        PyErr_SetString(PyExc_ValueError, "a bad value");
        PGM_PYTHON_MGR_TEST::print_python_error();
        EXPECT_EQ(PyErr_Occurred(), nullptr);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ValueError: a bad value\n");
}

TEST(PrintPythonError, APendingExitDoesNotEndTheProcess) {
    testing::internal::CaptureStderr();
    {
        INTERPRETER_SESSION session;
        PyErr_SetString(PyExc_SystemExit, "out");
        PGM_PYTHON_MGR_TEST::print_python_error();
        EXPECT_EQ(PyErr_Occurred(), nullptr);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "SystemExit: out\n");
}

}  // namespace
