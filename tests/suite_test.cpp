#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_common/pgm_common_folders.h"
#include "tests/support.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"
#include "zel/zel_msg/zel_msg.h"
#include "zel/zel_thr/zel_thr.h"

namespace {

using TEXTS = std::vector<std::string>;
using CLOCK = std::chrono::steady_clock;

// ---- zel_mem: formatting

TEST(Formatting, FillsAsPrintfDoes) {
    EXPECT_EQ(MEM_DETAIL::stl_raw_sprintf("%s/%s.%s: %d of %5.2f%%", "a", "b", "py", -7, 12.5),
              "a/b.py: -7 of 12.50%");
}

TEST(Formatting, ATextHasAnyLength) {
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{1}, std::size_t{15}, std::size_t{16}, std::size_t{255},
          std::size_t{256}, std::size_t{1023}, std::size_t{1024}, std::size_t{4096},
          std::size_t{65536}, std::size_t{5000001}}) {
        const std::string argument(length, 'x');
        EXPECT_TRUE(MEM_DETAIL::stl_raw_sprintf("%s", argument.c_str()) == argument) << length;
        EXPECT_TRUE(MEM_DETAIL::stl_raw_sprintf("<%s>", argument.c_str()) == "<" + argument + ">")
            << length;
    }
}

TEST(Formatting, ArgumentsAreNotReadAsAFormat) {
    EXPECT_EQ(MEM_DETAIL::stl_raw_sprintf("%s", "100%s%n%d%"), "100%s%n%d%");
}

TEST(Formatting, AZeroByteThatTheFormatMakesIsKept) {
    EXPECT_EQ(MEM_DETAIL::stl_raw_sprintf("a%cb", '\0'), std::string("a\0b", 3));
}

TEST(Formatting, AFormatThatTheLibraryRejectsGivesAnEmptyText) {
    const wchar_t unconvertible[] = {static_cast<wchar_t>(0xD800), 0};
    if (std::snprintf(nullptr, 0, "before %ls", unconvertible) >= 0) {
        GTEST_SKIP() << "this C library converts every wide text";
    }
    EXPECT_EQ(MEM_DETAIL::stl_raw_sprintf("before %ls", unconvertible), "");
}

TEXTS formatted_twice(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    TEXTS texts = {MEM_DETAIL::stl_raw_vsprintf(format, arguments)};
    texts.push_back(MEM_DETAIL::stl_raw_vsprintf(format, arguments));
    va_end(arguments);
    return texts;
}

TEST(Formatting, TheArgumentsOfAVariadicFunctionAreLeftAsTheyWere) {
    EXPECT_EQ(formatted_twice("%s %d %s", "a", 2, "c"), (TEXTS{"a 2 c", "a 2 c"}));
}

// ---- zel_mem: overwriting, modules

TEST(Overwrite, ZeroesExactlyTheBytesNamed) {
    std::vector<unsigned char> memory(64, 0xA5);
    MEM_DETAIL::overwrite(&memory[8], 40);
    std::vector<unsigned char> expected(64, 0xA5);
    std::fill(expected.begin() + 8, expected.begin() + 48, static_cast<unsigned char>(0));
    EXPECT_EQ(memory, expected);

    MEM_DETAIL::overwrite(&memory[0], 0);
    MEM_DETAIL::overwrite(nullptr, 0);
    EXPECT_EQ(memory, expected);
}

TEST(Overwrite, ASecretInATextIsGone) {
    std::string secret(100000, 's');
    MEM_DETAIL::overwrite(&secret[0], secret.size());
    EXPECT_TRUE(secret == std::string(100000, '\0'));
}

TEST(Modules, AModuleIsLoadedWhileItsInitializerLives) {
    EXPECT_FALSE(MEM_INITIALIZER::is_loaded("SUITE_TEST"));
    {
        const MEM_INITIALIZER initializer("SUITE_TEST");
        EXPECT_TRUE(MEM_INITIALIZER::is_loaded("SUITE_TEST"));
        EXPECT_FALSE(MEM_INITIALIZER::is_loaded("SUITE_TES"));
        EXPECT_FALSE(MEM_INITIALIZER::is_loaded("suite_test"));
        EXPECT_FALSE(MEM_INITIALIZER::is_loaded(""));
    }
    EXPECT_FALSE(MEM_INITIALIZER::is_loaded("SUITE_TEST"));
}

TEST(Modules, AModuleEnteredTwiceIsLoadedUntilBothAreGone) {
    auto first = std::make_unique<MEM_INITIALIZER>("SUITE_TEST");
    auto other = std::make_unique<MEM_INITIALIZER>("SUITE_TEST_OTHER");
    auto second = std::make_unique<MEM_INITIALIZER>("SUITE_TEST");
    first.reset();
    EXPECT_TRUE(MEM_INITIALIZER::is_loaded("SUITE_TEST"));
    second.reset();
    EXPECT_FALSE(MEM_INITIALIZER::is_loaded("SUITE_TEST"));
    EXPECT_TRUE(MEM_INITIALIZER::is_loaded("SUITE_TEST_OTHER"));
}

// ---- zel_msg: messages

std::string filled(const std::string& format, const TEXTS& arguments) {
    MSG_E message(nullptr);
    message.fill_args(format + "/NAME", arguments);
    EXPECT_EQ(message.name(), "NAME");
    return message.text();
}

TEST(Message, PlaceholdersAreFilledByPosition) {
    EXPECT_EQ(filled("%2!s! before %1!s!, %2!s! again", {"a", "b"}), "b before a, b again");
    EXPECT_EQ(filled("%1!s!%2!s!", {"a", "b"}), "ab");
    EXPECT_EQ(filled("[%1!s!]", {""}), "[]");
    EXPECT_EQ(filled("no placeholder", {"a"}), "no placeholder");
}

TEST(Message, ArgumentsGoInAsTheyAre) {
    EXPECT_EQ(filled("%1!s! %2!s!", {"%2!s!", "%1!s!"}), "%2!s! %1!s!");
    EXPECT_EQ(filled("%1!s!%2!s!", {"%2", "!s!"}), "%2!s!");
    EXPECT_EQ(filled("%%1!s!", {"1!s!"}), "%1!s!");
    EXPECT_EQ(filled("%1!s!", {"100% %s %n %d %%"}), "100% %s %n %d %%");
    EXPECT_EQ(filled("%1!s!|%2!s!", {"/a/b/", "/"}), "/a/b/|/");
    EXPECT_EQ(filled("%1!s!|", {std::string("a\0b\0", 4)}), std::string("a\0b\0|", 5));
    EXPECT_EQ(filled("%1!s!", {"two\nlines\r\n"}), "two\nlines\r\n");
}

TEST(Message, ThereMayBeTenArgumentsAndMore) {
    TEXTS arguments;
    std::string format;
    std::string expected;
    for (int number = 1; number <= 120; ++number) {
        arguments.push_back("<" + std::to_string(number) + ">");
        format = "%" + std::to_string(number) + "!s!" + format;
        expected = arguments.back() + expected;
    }
    EXPECT_EQ(filled(format, arguments), expected);
}

TEST(Message, APlaceholderWithoutAnArgumentStaysAsItStands) {
    EXPECT_EQ(filled("%1!s! %2!s!", {"a"}), "a %2!s!");
    EXPECT_EQ(filled("%1!s!", {}), "%1!s!");
    EXPECT_EQ(filled("%0!s! %10!s!", {"a"}), "%0!s! %10!s!");
    EXPECT_EQ(filled("%18446744073709551617!s! %99999999999999999999999!s!", {"a"}),
              "%18446744073709551617!s! %99999999999999999999999!s!");
}

TEST(Message, WhatOnlyLooksLikeAPlaceholderStaysAsItStands) {
    EXPECT_EQ(filled("%1!d! %1!S! %1 !s! %!s! %-1!s! 1!s!", {"a"}),
              "%1!d! %1!S! %1 !s! %!s! %-1!s! 1!s!");
    EXPECT_EQ(filled("%1!s", {"a"}), "%1!s");
    EXPECT_EQ(filled("%1", {"a"}), "%1");
    EXPECT_EQ(filled("100%", {"a"}), "100%");
}

TEST(Message, TheLastSlashPartsTheFormatFromTheName) {
    MSG_E message(nullptr);
    message.fill_args("read a/b or %1!s!/EX_NAME", {"c/d"});
    EXPECT_EQ(message.text(), "read a/b or c/d");
    EXPECT_EQ(message.name(), "EX_NAME");

    message.fill_args("no name", {});
    EXPECT_EQ(message.text(), "no name");
    EXPECT_EQ(message.name(), "");

    message.fill_args("/ONLY", {});
    EXPECT_EQ(message.text(), "");
    EXPECT_EQ(message.name(), "ONLY");

    message.fill_args("%1!s!/", {"x"});
    EXPECT_EQ(message.text(), "x");
    EXPECT_EQ(message.name(), "");
}

TEST(Message, ItsNumberIsZeroUntilItIsSet) {
    MSG_E message(nullptr);
    EXPECT_EQ(message.id(), 0UL);
    message.set_id(20351);
    message.fill_args("text/NAME", {});
    EXPECT_EQ(message.id(), 20351UL);
}

TEST(Message, AnErrorHasTheAncestryOfTheSuite) {
    EXPECT_TRUE((std::is_base_of<MSG_POST, MSG_E>::value));
    EXPECT_TRUE((std::is_base_of<MSG_BASE, MSG_POST>::value));
    EXPECT_TRUE((std::is_base_of<PDB_VIRTUAL_OBJECT, MSG_BASE>::value));
    EXPECT_TRUE((std::is_base_of<PDB_VIRTUAL_OBJECT_BASE, PDB_VIRTUAL_OBJECT>::value));
    EXPECT_TRUE((std::is_base_of<PDB_OBJECT_BASE, PDB_VIRTUAL_OBJECT_BASE>::value));
    EXPECT_TRUE(std::has_virtual_destructor<PDB_OBJECT_BASE>::value);
}

TEST(Message, AnErrorIsFoundBehindItsFarthestBase) {
    auto error = std::make_unique<MSG_E>(nullptr);
    error->fill_args("%1!s!/NAME", {"kept"});
    const std::unique_ptr<PDB_OBJECT_BASE> object = std::move(error);
    const auto* const found = dynamic_cast<const MSG_E*>(object.get());
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->text(), "kept");
}

// ---- zel_msg: where reports go

void post(unsigned long number, const std::string& literal, const TEXTS& arguments) {
    MSG_E message(nullptr);
    message.fill_args(literal, arguments);
    message.set_id(number);
    message.post();
}

TEST(DefaultReports, AnErrorLineIsOneLineOnStandardError) {
    EXPECT_EQ(written_by([] { msg_line(MSG_TYPE_ERROR, "no %s here"); }), "error: no %s here\n");
    EXPECT_EQ(written_by([] { msg_line(MSG_TYPE_ERROR, ""); }), "error: \n");
    EXPECT_EQ(written_by([] { msg_line(MSG_TYPE_ERROR, std::string("a\0b", 3)); }),
              std::string("error: a\0b\n", 11));
}

TEST(DefaultReports, APrintedMessageIsAnErrorLine) {
    EXPECT_EQ(written_by([] { PGM_COMMON_MSG::print_msg(3, 0, "Fail to load module %s", "m"); }),
              "error: Fail to load module m\n");
}

TEST(DefaultReports, APostHasItsNumber) {
    EXPECT_EQ(written_by([] { post(20353, "%1!s!/NAME", {"100% a/b %1!s!"}); }),
              "error 20353: 100% a/b %1!s!\n");
}

TEST(DefaultReports, PostingKeepsTheMessage) {
    MSG_E message(nullptr);
    message.fill_args("%1!s!/NAME", {"twice"});
    message.set_id(7);
    EXPECT_EQ(written_by([&] {
                  message.post();
                  message.post();
              }),
              "error 7: twice\nerror 7: twice\n");
}

TEST(DefaultReports, LinesOfSeveralThreadsDoNotMix) {
    constexpr int lines_of_a_thread = 3000;
    const std::string output = written_by([] {
        std::vector<std::thread> threads;
        for (char letter = 'a'; letter < 'e'; ++letter) {
            threads.emplace_back([letter] {
                for (int line = 0; line < lines_of_a_thread; ++line) {
                    msg_line(MSG_TYPE_ERROR, std::string(200, letter));
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    std::istringstream lines(output);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        ASSERT_EQ(line.size(), 207U);
        ASSERT_EQ(line, "error: " + std::string(200, line.back()));
    }
    EXPECT_EQ(count, 4 * lines_of_a_thread);
}

TEST(DefaultReportsDeathTest, AnInternalErrorIsPrintedAndTheProcessAborts) {
    EXPECT_DEATH(MSG_INTERNAL_ERROR::report("list_size == 2", "PGM_PYTHON", "pgm/a/b", 1781),
                 "^internal error: list_size == 2 \\[PGM_PYTHON, pgm/a/b, line 1781\\]\\s+$");
    EXPECT_DEATH(
        MSG_INTERNAL_ERROR::report_varg("ZEL_X", "zel/x", 7, "Python script %s: %d", "a%sb", 3),
        "^internal error: Python script a%sb: 3 \\[ZEL_X, zel/x, line 7\\]\\s+$");
}

TEST(Receiver, GetsEveryReportInsteadOfStandardError) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(written_by([] {
                  msg_line(MSG_TYPE_ERROR, "one");
                  PGM_COMMON_MSG::print_msg(3, 0, "Fail to find function %s", "f");
                  post(20354, "Fail to execute file %1!s!/NAME", {"x.py"});
                  EXPECT_EQ(thrown_by([] { MSG_INTERNAL_ERROR::report("c", "M", "s/t", 12); }),
                            "internal error: c [M, s/t, line 12]");
                  EXPECT_EQ(thrown_by([] {
                                MSG_INTERNAL_ERROR::report_varg("M", "s/t", 13, "%s", "100%");
                            }),
                            "internal error: 100% [M, s/t, line 13]");
              }),
              "");
    EXPECT_EQ(receiver.reports, (TEXTS{"error: one", "error: Fail to find function f",
                                       "error 20354: Fail to execute file x.py",
                                       "internal error: c [M, s/t, line 12]",
                                       "internal error: 100% [M, s/t, line 13]"}));
}

TEST(Receiver, AnExplanationHasAnyLength) {
    RECORDING_RECEIVER receiver;
    const std::string long_text(100000, 'e');
    EXPECT_TRUE(thrown_by([&] {
                    MSG_INTERNAL_ERROR::report_varg("M", "s", 1, "%s", long_text.c_str());
                }) == "internal error: " + long_text + " [M, s, line 1]");
}

TEST(Receiver, TheOneBeforeIsGivenBackAndCanBePutBack) {
    EXPECT_EQ(MSG_RECEIVER::set(nullptr), nullptr);
    RECORDING_RECEIVER outer;
    {
        RECORDING_RECEIVER inner;
        msg_line(MSG_TYPE_ERROR, "to the inner one");
        EXPECT_EQ(MSG_RECEIVER::set(&outer), &inner);
        msg_line(MSG_TYPE_ERROR, "to the outer one");
        EXPECT_EQ(MSG_RECEIVER::set(&inner), &outer);
        EXPECT_EQ(inner.reports, TEXTS{"error: to the inner one"});
    }
    msg_line(MSG_TYPE_ERROR, "restored");
    EXPECT_EQ(outer.reports, (TEXTS{"error: to the outer one", "error: restored"}));
}

TEST(Receiver, WithoutOneTheDefaultIsBack) {
    RECORDING_RECEIVER receiver;
    EXPECT_EQ(MSG_RECEIVER::set(nullptr), &receiver);
    EXPECT_EQ(written_by([] { msg_line(MSG_TYPE_ERROR, "default"); }), "error: default\n");
    EXPECT_TRUE(receiver.reports.empty());
}

TEST(Receiver, AReportReturnsWhenTheReceiverReturns) {
    RECORDING_RECEIVER receiver;
    receiver.returns_from_internal_errors = true;
    MSG_INTERNAL_ERROR::report("first", "M", "s", 1);
    MSG_INTERNAL_ERROR::report_varg("M", "s", 2, "%s", "second");
    EXPECT_EQ(receiver.reports, (TEXTS{"internal error: first [M, s, line 1]",
                                       "internal error: second [M, s, line 2]"}));
}

class THREAD_NOTING_RECEIVER : public MSG_RECEIVER {
public:
    void line(int type, const std::string& text) override {
        thread = std::this_thread::get_id();
        throw std::runtime_error(std::to_string(type) + text);
    }
    void post(unsigned long number, const std::string& text) override {
        throw std::runtime_error(std::to_string(number) + text);
    }
    void internal_error(const INTERNAL_ERROR&) override {}

    std::thread::id thread;
};

std::string runtime_error_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

TEST(Receiver, IsCalledOnTheThreadThatReports) {
    THREAD_NOTING_RECEIVER receiver;
    MSG_RECEIVER* const before = MSG_RECEIVER::set(&receiver);
    std::thread::id reporter;
    std::thread([&] {
        reporter = std::this_thread::get_id();
        EXPECT_EQ(runtime_error_of([] { msg_line(MSG_TYPE_ERROR, " there"); }), "3 there");
    }).join();
    MSG_RECEIVER::set(before);
    EXPECT_EQ(receiver.thread, reporter);
    EXPECT_NE(receiver.thread, std::this_thread::get_id());
}

TEST(Receiver, WhatItThrowsReachesTheOneWhoReports) {
    THREAD_NOTING_RECEIVER receiver;
    MSG_RECEIVER* const before = MSG_RECEIVER::set(&receiver);
    EXPECT_EQ(runtime_error_of([] { msg_line(MSG_TYPE_ERROR, " a"); }), "3 a");
    EXPECT_EQ(runtime_error_of([] { PGM_COMMON_MSG::print_msg(3, 0, " %s", "b"); }), "3 b");
    EXPECT_EQ(runtime_error_of([] { post(9, " c/NAME", {}); }), "9 c");
    MSG_RECEIVER::set(before);
}

// ---- zel_msg: registration

using IDS = std::vector<unsigned long>;

// The registered numbers of which none was in `before`, which must still lead the list.
IDS registered_since(const IDS& before) {
    const IDS now = MSG_ID_REGISTRAR::registered();
    EXPECT_GE(now.size(), before.size());
    EXPECT_TRUE(std::equal(before.begin(), before.end(), now.begin()));
    return IDS(now.begin() + static_cast<std::ptrdiff_t>(before.size()), now.end());
}

TEST(Registrar, NumbersAreRegisteredInOrderWhileItLives) {
    const IDS before = MSG_ID_REGISTRAR::registered();
    {
        unsigned long ids[] = {900003, 900001, 900002, 900099};
        int types[] = {0, 5, 2, 9};
        const MSG_ID_REGISTRAR registrar(ids, types, 3);
        std::fill(std::begin(ids), std::end(ids), 0UL);
        std::fill(std::begin(types), std::end(types), 0);
        EXPECT_EQ(registered_since(before), (IDS{900003, 900001, 900002}));
        EXPECT_EQ(MSG_ID_REGISTRAR::type_of(900003), 0);
        EXPECT_EQ(MSG_ID_REGISTRAR::type_of(900001), 5);
        EXPECT_EQ(MSG_ID_REGISTRAR::type_of(900002), 2);
        EXPECT_EQ(MSG_ID_REGISTRAR::type_of(900099), -1);
    }
    EXPECT_EQ(registered_since(before), IDS{});
    EXPECT_EQ(MSG_ID_REGISTRAR::type_of(900001), -1);
}

TEST(Registrar, EachTakesOutItsOwnNumbersInWhateverOrderTheyEnd) {
    const IDS before = MSG_ID_REGISTRAR::registered();
    const unsigned long first_ids[] = {900001, 900002};
    const unsigned long second_ids[] = {900003};
    const unsigned long third_ids[] = {900004, 900005};
    const int types[] = {0, 0};
    auto first = std::make_unique<MSG_ID_REGISTRAR>(first_ids, types, 2);
    auto second = std::make_unique<MSG_ID_REGISTRAR>(second_ids, types, 1);
    auto third = std::make_unique<MSG_ID_REGISTRAR>(third_ids, types, 2);
    EXPECT_EQ(registered_since(before), (IDS{900001, 900002, 900003, 900004, 900005}));
    second.reset();
    EXPECT_EQ(registered_since(before), (IDS{900001, 900002, 900004, 900005}));
    first.reset();
    EXPECT_EQ(registered_since(before), (IDS{900004, 900005}));
    third.reset();
    EXPECT_EQ(registered_since(before), IDS{});
}

TEST(Registrar, ANumberRegisteredTwiceStaysTheOtherOnes) {
    const IDS before = MSG_ID_REGISTRAR::registered();
    const unsigned long first_ids[] = {900001, 900002};
    const unsigned long second_ids[] = {900002, 900001};
    const int first_types[] = {1, 2};
    const int second_types[] = {3, 4};
    const MSG_ID_REGISTRAR first(first_ids, first_types, 2);
    {
        const MSG_ID_REGISTRAR second(second_ids, second_types, 2);
        EXPECT_EQ(registered_since(before), (IDS{900001, 900002, 900002, 900001}));
    }
    EXPECT_EQ(registered_since(before), (IDS{900001, 900002}));
    EXPECT_EQ(MSG_ID_REGISTRAR::type_of(900001), 1);
    EXPECT_EQ(MSG_ID_REGISTRAR::type_of(900002), 2);
}

// ---- zel_fio

constexpr bool backslash_separates = std::filesystem::path::preferred_separator == '\\';

// "gruess" and a snowman, as UTF-8.
const char non_ascii[] = "gr\xC3\xBC\xC3\x9F_\xE2\x98\x83";

std::string absolute(const std::string& path, const std::string& base = "") {
    FIO_PATH result(path);
    result.become_absolute(base);
    return result.fullpath();
}

TEST(Exists, AFileDoes) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("a.py", "");
    EXPECT_TRUE(FIO_FILE_SYSTEM::exists(file));
    EXPECT_TRUE(FIO_FILE_SYSTEM::exists(file.c_str()));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(folder.path() + "/b.py"));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(folder.path() + "/no/a.py"));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(file + "/b.py"));
}

TEST(Exists, AFolderIsNoFile) {
    const TEMPORARY_FOLDER folder;
    const std::string sub_folder = folder.make_folder("tool.py");
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(sub_folder));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(sub_folder + "/"));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists("."));
}

TEST(Exists, AnEmptyNameDoesNot) {
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(std::string()));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(""));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(static_cast<const char*>(nullptr)));
}

TEST(Exists, ANameWithAZeroByteInsideDoesNot) {
    const TEMPORARY_FOLDER folder;
    const std::string file = folder.write("a.py", "");
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(file + std::string("\0.txt", 5)));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(file + std::string(1, '\0')));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(std::string(1, '\0') + file));
}

TEST(Exists, NamesAreRelativeToTheCurrentFolder) {
    const TEMPORARY_FOLDER folder;
    folder.write("sub/a.py", "");
    const CURRENT_FOLDER here(folder.path());
    EXPECT_TRUE(FIO_FILE_SYSTEM::exists("sub/a.py"));
    EXPECT_TRUE(FIO_FILE_SYSTEM::exists("./sub/../sub/a.py"));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists("a.py"));
}

TEST(Exists, NamesMayHoldBlanksAndLettersOfAnyLanguage) {
    const TEMPORARY_FOLDER folder;
    EXPECT_TRUE(FIO_FILE_SYSTEM::exists(folder.write(std::string("a b/") + non_ascii + ".py", "")));
    EXPECT_FALSE(FIO_FILE_SYSTEM::exists(folder.path() + "/a b/" + non_ascii + ".pyc"));
}

TEST(Path, ARelativeOneBecomesAbsoluteAgainstTheCurrentFolder) {
    const TEMPORARY_FOLDER folder;
    const CURRENT_FOLDER here(folder.path());
    EXPECT_EQ(absolute("a.py"), folder.path() + "/a.py");
    EXPECT_EQ(absolute("sub/a.py"), folder.path() + "/sub/a.py");
    EXPECT_EQ(absolute(""), folder.path());
}

TEST(Path, ARelativeOneBecomesAbsoluteAgainstTheBaseGiven) {
    const TEMPORARY_FOLDER folder;
    EXPECT_EQ(absolute("a.py", folder.path()), folder.path() + "/a.py");
    EXPECT_EQ(absolute("sub/a.py", folder.path() + "//."), folder.path() + "/sub/a.py");
    EXPECT_EQ(absolute("", folder.path() + "/"), folder.path());
}

TEST(Path, AnAbsoluteOneIsOnlyTidied) {
    const TEMPORARY_FOLDER folder;
    const TEMPORARY_FOLDER other;
    const CURRENT_FOLDER here(other.path());
    EXPECT_EQ(absolute(folder.path() + "/a.py"), folder.path() + "/a.py");
    EXPECT_EQ(absolute(folder.path() + "/a.py", other.path()), folder.path() + "/a.py");
    EXPECT_EQ(absolute(folder.path() + "/./sub//.///a.py/."), folder.path() + "/sub/a.py");
    EXPECT_EQ(absolute(folder.path() + "///"), folder.path());
}

TEST(Path, OneDotGoesAndTwoDotsStay) {
    const TEMPORARY_FOLDER folder;
    EXPECT_EQ(absolute("./a/./b/.", folder.path()), folder.path() + "/a/b");
    EXPECT_EQ(absolute("../a/../b.py", folder.path()), folder.path() + "/../a/../b.py");
    EXPECT_EQ(absolute("...", folder.path()), folder.path() + "/...");
    EXPECT_EQ(absolute(".hidden/.a.py", folder.path()), folder.path() + "/.hidden/.a.py");
}

TEST(Path, DoubledSeparatorsAndThoseAtTheEndGo) {
    const TEMPORARY_FOLDER folder;
    EXPECT_EQ(absolute("a//b///c.py//", folder.path()), folder.path() + "/a/b/c.py");
}

TEST(Path, LettersOfAnyLanguageAreKept) {
    const TEMPORARY_FOLDER folder(non_ascii);
    const CURRENT_FOLDER here(folder.path());
    FIO_PATH path(std::string(non_ascii) + " x/" + non_ascii + ".py");
    path.become_absolute("");
    EXPECT_EQ(path.fullpath(), folder.path() + "/" + non_ascii + " x/" + non_ascii + ".py");
    EXPECT_EQ(path.full_directory(), folder.path() + "/" + non_ascii + " x");
    EXPECT_EQ(path.filename(), std::string(non_ascii) + ".py");
}

TEST(Path, IsTakenApartAtItsLastSeparator) {
    const FIO_PATH relative("dir.d/tool.pyc");
    EXPECT_EQ(relative.full_directory(), "dir.d");
    EXPECT_EQ(relative.filename(), "tool.pyc");

    const FIO_PATH alone("tool.py");
    EXPECT_EQ(alone.full_directory(), ".");
    EXPECT_EQ(alone.filename(), "tool.py");

    const FIO_PATH empty("");
    EXPECT_EQ(empty.fullpath(), "");
    EXPECT_EQ(empty.filename(), "");

    EXPECT_EQ(FIO_PATH("a/b//tool.py").full_directory(), "a/b");
    EXPECT_EQ(FIO_PATH("a/b//tool.py").filename(), "tool.py");
}

TEST(Path, ARootIsItsOwnFolder) {
    const TEMPORARY_FOLDER folder;
    const std::string root = std::filesystem::u8path(folder.path()).root_path().generic_u8string();
    ASSERT_EQ(root.back(), '/');
    for (const std::string& text : {root, root + ".", root + "/", root + "././/."}) {
        FIO_PATH path(text);
        path.become_absolute(folder.path());
        EXPECT_EQ(path.fullpath(), root) << text;
        EXPECT_EQ(path.full_directory(), root) << text;
        EXPECT_EQ(path.filename(), "") << text;
    }
    EXPECT_EQ(FIO_PATH(root + "tool.py").full_directory(), root);
    EXPECT_EQ(FIO_PATH(root + "tool.py").filename(), "tool.py");
    EXPECT_EQ(absolute("tool.py", root), root + "tool.py");
}

TEST(Path, ABackslashSeparatesOnlyWhereThePlatformSaysSo) {
    EXPECT_EQ(FIO_PATH("a\\b.py").filename(), backslash_separates ? "b.py" : "a\\b.py");
    EXPECT_EQ(FIO_PATH("a\\b.py").fullpath(), backslash_separates ? "a/b.py" : "a\\b.py");
}

// ---- pgm_common: folders

// No folder named by the environment.
struct NO_FOLDERS_NAMED {
    ENVIRONMENT_VALUE common{"PGM_COMMON_PROGRAMMER_DIR", nullptr};
    ENVIRONMENT_VALUE unshipped{"PGM_UNSHIPPED_PROGRAMMER_DIR", nullptr};
    ENVIRONMENT_VALUE bin{"PGM_BIN_DIR", nullptr};
};

TEXTS three_folders() {
    return {PGM_COMMON::pgm_get_common_programmer(),
            PGM_COMMON::pgm_get_unshipped_programmer(false), PGM_COMMON::pgm_get_bin_directory()};
}

TEST(Folders, AreNamedByTheEnvironment) {
    const ENVIRONMENT_VALUE common("PGM_COMMON_PROGRAMMER_DIR", "/x/common dir");
    const ENVIRONMENT_VALUE unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", "y/unshipped");
    const ENVIRONMENT_VALUE bin("PGM_BIN_DIR", "/z/bin");
    EXPECT_EQ(three_folders(), (TEXTS{"/x/common dir", "y/unshipped", "/z/bin"}));
}

TEST(Folders, AreReadAtEveryCall) {
    const ENVIRONMENT_VALUE first("PGM_BIN_DIR", "/first");
    EXPECT_EQ(PGM_COMMON::pgm_get_bin_directory(), "/first");
    {
        const ENVIRONMENT_VALUE second("PGM_BIN_DIR", "/second");
        EXPECT_EQ(PGM_COMMON::pgm_get_bin_directory(), "/second");
    }
    EXPECT_EQ(PGM_COMMON::pgm_get_bin_directory(), "/first");
}

TEST(Folders, CarryNoSeparatorAtTheEnd) {
    const ENVIRONMENT_VALUE common("PGM_COMMON_PROGRAMMER_DIR", "/x/common/");
    const ENVIRONMENT_VALUE unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", "/y///");
    const ENVIRONMENT_VALUE bin("PGM_BIN_DIR", "bin/");
    EXPECT_EQ(three_folders(), (TEXTS{"/x/common", "/y", "bin"}));
}

TEST(Folders, HaveForwardSlashesWhereThePlatformKnowsAnotherSeparator) {
    const ENVIRONMENT_VALUE bin("PGM_BIN_DIR", "x\\y\\");
    EXPECT_EQ(PGM_COMMON::pgm_get_bin_directory(), backslash_separates ? "x/y" : "x\\y\\");
}

TEST(Folders, MayHoldLettersOfAnyLanguage) {
    const ENVIRONMENT_VALUE common("PGM_COMMON_PROGRAMMER_DIR", non_ascii);
    EXPECT_EQ(PGM_COMMON::pgm_get_common_programmer(), non_ascii);
}

TEST(Folders, TheFlagOfTheUnshippedOneChangesNothing) {
    const ENVIRONMENT_VALUE unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", "/y");
    EXPECT_EQ(PGM_COMMON::pgm_get_unshipped_programmer(true), "/y");
}

TEST(Folders, AreFoundBesideTheProgramWhenTheyAreUnset) {
    const NO_FOLDERS_NAMED none;
    const std::string bin = PGM_COMMON::pgm_get_bin_directory();
    const std::filesystem::path bin_path = std::filesystem::u8path(bin);
    EXPECT_TRUE(bin_path.is_absolute()) << bin;
    EXPECT_TRUE(std::filesystem::equivalent(bin_path, PGM_PYTHON_PROGRAMS)) << bin;
    EXPECT_EQ(bin.find('\\'), std::string::npos);
    EXPECT_NE(bin.back(), '/');
    EXPECT_EQ(bin, FIO_FILE_SYSTEM::program_directory());

    const std::string above = bin_path.parent_path().generic_u8string();
    EXPECT_EQ(PGM_COMMON::pgm_get_common_programmer(), above + "/common/programmer");
    EXPECT_EQ(PGM_COMMON::pgm_get_unshipped_programmer(false), above + "/unshipped/programmer");
    EXPECT_EQ(PGM_COMMON::pgm_get_unshipped_programmer(true), above + "/unshipped/programmer");
}

TEST(Folders, AnEmptyNameCountsAsNone) {
    const NO_FOLDERS_NAMED none;
    const TEXTS unset = three_folders();
    const ENVIRONMENT_VALUE common("PGM_COMMON_PROGRAMMER_DIR", "");
    const ENVIRONMENT_VALUE unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", "");
    const ENVIRONMENT_VALUE bin("PGM_BIN_DIR", "");
    EXPECT_EQ(three_folders(), unset);
}

// The host's choice, taken back at the end.
struct CHOSEN {
    CHOSEN(const std::string& common, const std::string& unshipped, const std::string& bin) {
        PGM_COMMON_FOLDERS::set(common, unshipped, bin);
    }
    ~CHOSEN() { PGM_COMMON_FOLDERS::set("", "", ""); }
    CHOSEN(const CHOSEN&) = delete;
    CHOSEN& operator=(const CHOSEN&) = delete;
};

TEST(Folders, ThoseThatTheHostChoosesGoBeforeTheEnvironment) {
    const ENVIRONMENT_VALUE common("PGM_COMMON_PROGRAMMER_DIR", "/e/common");
    const ENVIRONMENT_VALUE unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", "/e/unshipped");
    const ENVIRONMENT_VALUE bin("PGM_BIN_DIR", "/e/bin");
    {
        const CHOSEN host("/h/common//", "h/unshipped/", "/h");
        EXPECT_EQ(three_folders(), (TEXTS{"/h/common", "h/unshipped", "/h"}));
        EXPECT_EQ(PGM_COMMON::pgm_get_unshipped_programmer(true), "h/unshipped");
    }
    EXPECT_EQ(three_folders(), (TEXTS{"/e/common", "/e/unshipped", "/e/bin"}));
}

TEST(Folders, AreChosenEachByItself) {
    const ENVIRONMENT_VALUE common("PGM_COMMON_PROGRAMMER_DIR", "/e/common");
    const ENVIRONMENT_VALUE unshipped("PGM_UNSHIPPED_PROGRAMMER_DIR", "/e/unshipped");
    const ENVIRONMENT_VALUE bin("PGM_BIN_DIR", "/e/bin");
    {
        const CHOSEN host("", "/h", "");
        EXPECT_EQ(three_folders(), (TEXTS{"/e/common", "/h", "/e/bin"}));
    }
    const CHOSEN host("/h", "", "");
    EXPECT_EQ(three_folders(), (TEXTS{"/h", "/e/unshipped", "/e/bin"}));
}

TEST(Folders, MayBeChosenWhileOthersAskForThem) {
    const NO_FOLDERS_NAMED none;
    const CHOSEN host("/one", "/one", "/one");
    std::atomic<bool> stop{false};
    std::thread chooser([&stop] {
        for (int turn = 0; !stop; ++turn) {
            const std::string folder = turn % 2 == 0 ? "/one" : "/a much longer folder than one";
            PGM_COMMON_FOLDERS::set(folder, folder, folder);
        }
    });
    TEXTS others;
    for (int turn = 0; turn < 2000; ++turn) {
        for (const std::string& folder : three_folders()) {
            if (folder != "/one" && folder != "/a much longer folder than one") {
                others.push_back(folder);
            }
        }
    }
    stop = true;
    chooser.join();
    EXPECT_EQ(others, TEXTS());
}

// ---- pgm_common: extensions

TEST(Extension, IsWhatTheLastComponentHoldsFromItsLastDotOn) {
    EXPECT_EQ(PGM_COMMON::get_extension("tool.py"), ".py");
    EXPECT_EQ(PGM_COMMON::get_extension("a/b.c.PY"), ".PY");
    EXPECT_EQ(PGM_COMMON::get_extension(".py"), ".py");
    EXPECT_EQ(PGM_COMMON::get_extension("x/.py"), ".py");
    EXPECT_EQ(PGM_COMMON::get_extension("b."), ".");
    EXPECT_EQ(PGM_COMMON::get_extension(".."), ".");
    EXPECT_EQ(PGM_COMMON::get_extension("a.b/c"), "");
    EXPECT_EQ(PGM_COMMON::get_extension("a.py/"), "");
    EXPECT_EQ(PGM_COMMON::get_extension("tool"), "");
    EXPECT_EQ(PGM_COMMON::get_extension(""), "");
}

TEST(Extension, ItsPlaceInAListIsCountedFromOne) {
    const TEXTS scripts = {".py", ".pyc"};
    EXPECT_EQ(PGM_COMMON::match_extension("/x/tool.py", scripts), 1);
    EXPECT_EQ(PGM_COMMON::match_extension("/x/tool.pyc", scripts), 2);
    EXPECT_EQ(PGM_COMMON::match_extension("tool.py.pyc", scripts), 2);
    EXPECT_EQ(PGM_COMMON::match_extension("a.py", {".py", ".py"}), 1);
    EXPECT_EQ(PGM_COMMON::match_extension("b.", {".py", "."}), 2);
}

TEST(Extension, IsNotInAListThatDoesNotNameItWhole) {
    const TEXTS scripts = {".py", ".pyc"};
    for (const char* const file : {"tool.txt", "tool", "", "b.", "tool.p", "tool.pyw", "tool.pycc",
                                   "tool.py ", "x.py/tool", "py", "toolpy", "tool.pyc.bak"}) {
        EXPECT_EQ(PGM_COMMON::match_extension(file, scripts), 0) << file;
    }
    EXPECT_EQ(PGM_COMMON::match_extension("tool.py", {}), 0);
    EXPECT_EQ(PGM_COMMON::match_extension("tool.py", {"py", "", "*.py"}), 0);
    EXPECT_EQ(PGM_COMMON::match_extension("tool", {""}), 0);
}

TEST(Extension, TheCaseOfItsLettersDoesNotMatter) {
    EXPECT_EQ(PGM_COMMON::match_extension("tool.PY", {".py", ".pyc"}), 1);
    EXPECT_EQ(PGM_COMMON::match_extension("tool.pYc", {".py", ".PyC"}), 2);
    EXPECT_EQ(PGM_COMMON::match_extension("tool.[", {".{"}), 0);
    EXPECT_EQ(PGM_COMMON::match_extension("tool.@", {".`"}), 0);
}

// ---- pgm_common: hexadecimal text

std::string hex(const std::vector<unsigned char>& bytes) {
    return PGM_COMMON::convert_byte_array_to_standard_hex_string(
        const_cast<unsigned char*>(bytes.data()), static_cast<unsigned long>(bytes.size()), true,
        false);
}

TEST(HexText, EveryByteHasTwoUpperCaseDigits) {
    std::vector<unsigned char> bytes(256);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    std::string expected;
    for (int byte = 0; byte < 256; ++byte) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(byte));
        expected += digits;
    }
    EXPECT_EQ(hex(bytes), expected);
}

TEST(HexText, TheBytesKeepTheirOrderWithNothingBetweenThem) {
    EXPECT_EQ(hex({0xDE, 0xAD, 0x00, 0x0F, 0xF0}), "DEAD000FF0");
}

TEST(HexText, MayHaveAnySizeAndStartAnywhere) {
    std::vector<unsigned char> bytes(100);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0x70));
    const std::string whole = hex(bytes);
    for (std::size_t start = 0; start < 20; ++start) {
        for (std::size_t size = 0; start + size <= bytes.size(); ++size) {
            const std::vector<unsigned char> part(bytes.data() + start,
                                                  bytes.data() + start + size);
            ASSERT_EQ(hex(part), whole.substr(2 * start, 2 * size));
            ASSERT_EQ(PGM_COMMON::convert_byte_array_to_standard_hex_string(
                          const_cast<unsigned char*>(bytes.data()) + start,
                          static_cast<unsigned long>(size), true, false),
                      whole.substr(2 * start, 2 * size));
        }
    }
}

TEST(HexText, OfNothingIsEmpty) {
    EXPECT_EQ(hex({}), "");
    EXPECT_EQ(PGM_COMMON::convert_byte_array_to_standard_hex_string(nullptr, 0, true, false), "");
}

TEST(HexText, MayBeLarge) {
    std::vector<unsigned char> bytes(5000000, 0xC3);
    bytes.back() = 0x1E;
    const std::string text = hex(bytes);
    ASSERT_EQ(text.size(), 10000000U);
    EXPECT_EQ(text.substr(0, 4), "C3C3");
    EXPECT_EQ(text.substr(text.size() - 4), "C31E");
    EXPECT_EQ(std::count(text.begin(), text.end(), 'C'), 4999999);
}

// ---- pgm_common: splitting

constexpr unsigned long no_limit = 0xFFFFFFFF;
const char reason_delimiter[] = " !@#$^&*() ";

TEXTS split(const std::string& text, const std::string& delimiter = reason_delimiter,
            bool drop_empty = true, unsigned long most = no_limit) {
    return PGM_COMMON::split_string(text, delimiter, drop_empty, false, most, {}, "", true);
}

TEST(Split, PiecesKeepTheirOrder) {
    EXPECT_EQ(split("c !@#$^&*() a !@#$^&*() b"), (TEXTS{"c", "a", "b"}));
    EXPECT_EQ(split("one"), TEXTS{"one"});
}

TEST(Split, OnlyTheWholeDelimiterParts) {
    for (const char* const text : {"a!@#$^&*()b", "a !@#$^&*()b", "a!@#$^&*() b", "a !@#$^&* b",
                                   "a !@#$ b", "a b", "a  b", "a !@#$%^&*() b"}) {
        EXPECT_EQ(split(text), TEXTS{text});
    }
}

TEST(Split, PiecesAreNotTrimmed) {
    EXPECT_EQ(split("  a\t !@#$^&*()  b \n"), (TEXTS{"  a\t", " b \n"}));
    EXPECT_EQ(split("   !@#$^&*()  "), (TEXTS{"  ", " "}));
}

TEST(Split, EmptyPiecesAreDropped) {
    EXPECT_EQ(split(" !@#$^&*()  !@#$^&*() a !@#$^&*()  !@#$^&*() b !@#$^&*() "),
              (TEXTS{"a", "b"}));
    EXPECT_EQ(split(""), TEXTS{});
    EXPECT_EQ(split(reason_delimiter), TEXTS{});
}

TEST(Split, EmptyPiecesAreKeptWhenAskedFor) {
    EXPECT_EQ(split(",a,,b,", ",", false), (TEXTS{"", "a", "", "b", ""}));
    EXPECT_EQ(split("", ",", false), TEXTS{""});
    EXPECT_EQ(split(",", ",", false), (TEXTS{"", ""}));
}

TEST(Split, DelimitersThatShareABlankDoNotBothPart) {
    EXPECT_EQ(split("a !@#$^&*() !@#$^&*() b"), (TEXTS{"a", "!@#$^&*() b"}));
    EXPECT_EQ(split("aXXXb", "XX"), (TEXTS{"a", "Xb"}));
    EXPECT_EQ(split("aababaab", "aba"), (TEXTS{"a", "baab"}));
}

TEST(Split, ADelimiterThatHasOnlyBegunBelongsToThePiece) {
    EXPECT_EQ(split("a !@#$ !@#$^&*() b"), (TEXTS{"a !@#$", "b"}));
    EXPECT_EQ(split("a !@#$^&*() b !@#$^&*("), (TEXTS{"a", "b !@#$^&*("}));
}

TEST(Split, ZeroBytesAreOrdinaryBytes) {
    EXPECT_EQ(split(std::string("a\0b !@#$^&*() \0", 15)),
              (TEXTS{std::string("a\0b", 3), std::string("\0", 1)}));
}

TEST(Split, ALimitLeavesTheRestInTheLastPiece) {
    EXPECT_EQ(split("a,b,c,d", ",", true, 2), (TEXTS{"a", "b", "c,d"}));
    EXPECT_EQ(split("a,b,c,d", ",", true, 3), (TEXTS{"a", "b", "c", "d"}));
    EXPECT_EQ(split("a,b", ",", true, 0), TEXTS{"a,b"});
    EXPECT_EQ(split(",,a,b", ",", true, 1), (TEXTS{"a", "b"}));
    EXPECT_EQ(split(",,a,b", ",", false, 1), (TEXTS{"", ",a,b"}));
}

TEST(Split, AnEmptyDelimiterPartsNothing) {
    EXPECT_EQ(split("a b", ""), TEXTS{"a b"});
}

TEST(Split, MayGiveManyPieces) {
    std::string text;
    for (int piece = 0; piece < 100000; ++piece) {
        text += std::to_string(piece) + reason_delimiter;
    }
    const TEXTS pieces = split(text);
    ASSERT_EQ(pieces.size(), 100000U);
    EXPECT_EQ(pieces[77777], "77777");
}

// ---- pgm_common: error lines

TEST(PrintMsg, FillsAsPrintfDoes) {
    RECORDING_RECEIVER receiver;
    PGM_COMMON_MSG::print_msg(3, 0, "%s of %d%%", "100%s", 7);
    PGM_COMMON_MSG::print_msg(3, 0, "%s", std::string(100000, 'x').c_str());
    EXPECT_EQ(receiver.reports,
              (TEXTS{"error: 100%s of 7%", "error: " + std::string(100000, 'x')}));
}

class TYPE_NOTING_RECEIVER : public MSG_RECEIVER {
public:
    void line(int type, const std::string&) override { types.push_back(type); }
    void post(unsigned long, const std::string&) override {}
    void internal_error(const INTERNAL_ERROR&) override {}

    std::vector<int> types;
};

TEST(PrintMsg, HandsOnTheType) {
    TYPE_NOTING_RECEIVER receiver;
    MSG_RECEIVER* const before = MSG_RECEIVER::set(&receiver);
    PGM_COMMON_MSG::print_msg(3, 0, "an error");
    PGM_COMMON_MSG::print_msg(1, 0, "something else");
    MSG_RECEIVER::set(before);
    EXPECT_EQ(receiver.types, (std::vector<int>{3, 1}));
}

// ---- zel_thr

template <typename CONDITION>
bool comes_true(const CONDITION& condition, std::chrono::seconds limit = std::chrono::seconds(20)) {
    const auto end = CLOCK::now() + limit;
    while (!condition()) {
        if (CLOCK::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct FLAGS {
    std::atomic<bool> started{false};
    std::atomic<bool> go_on{false};
    std::atomic<bool> ended{false};
};

int wait_for_go(void* argument) {
    FLAGS& flags = *static_cast<FLAGS*>(argument);
    flags.started = true;
    while (!flags.go_on) {
        thr_msleep(1);
    }
    flags.ended = true;
    return 5;
}

TEST(Thread, RunsItsFunctionBesideItsCreator) {
    FLAGS flags;
    const THR_THREAD thread = thr_thread_create(wait_for_go, &flags, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(comes_true([&] { return flags.started.load(); }));
    EXPECT_EQ(thr_thread_is_running(thread), 1);
    EXPECT_FALSE(flags.ended);
    flags.go_on = true;
    EXPECT_TRUE(comes_true([&] { return thr_thread_is_running(thread) == 0; }));
    EXPECT_TRUE(flags.ended);
    thr_thread_wait(thread);
}

TEST(Thread, WaitingSeesItToItsEnd) {
    const THREADS_BEFORE threads;
    struct RESULT {
        std::thread::id thread;
        std::string text;
    } result;
    const THR_THREAD thread = thr_thread_create(
        [](void* argument) {
            thr_msleep(100);
            static_cast<RESULT*>(argument)->thread = std::this_thread::get_id();
            static_cast<RESULT*>(argument)->text = "written by the thread";
            return 0;
        },
        &result, 0);
    ASSERT_NE(thread, nullptr);
    thr_thread_wait(thread);
    EXPECT_EQ(result.text, "written by the thread");
    EXPECT_NE(result.thread, std::this_thread::get_id());
    EXPECT_TRUE(threads.are_back());
}

// Something to block on, and what a test wants to know about it.
struct BLOCKED_THREAD {
    std::mutex mutex;
    std::condition_variable changed;
    bool unblocked = false;
    bool blocking = false;

    FLAGS flags;
    std::atomic<bool> scope_is_over{false};
    std::atomic<bool> was_terminated{false};
    std::atomic<int> calls{0};
    std::atomic<int> late_calls{0};

    void block() {
        std::unique_lock<std::mutex> lock(mutex);
        blocking = true;
        changed.notify_all();
        changed.wait(lock, [this] { return unblocked; });
    }
    void wait_until_it_blocks() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return blocking; });
    }
    static void unblock(void* context) {
        BLOCKED_THREAD& self = *static_cast<BLOCKED_THREAD*>(context);
        ++self.calls;
        if (self.scope_is_over) {
            ++self.late_calls;
        }
        const std::lock_guard<std::mutex> lock(self.mutex);
        self.unblocked = true;
        self.changed.notify_all();
    }
};

std::chrono::milliseconds time_to_terminate(THR_THREAD thread) {
    const auto start = CLOCK::now();
    thr_thread_terminate_and_possibly_crash(thread);
    return std::chrono::duration_cast<std::chrono::milliseconds>(CLOCK::now() - start);
}

TEST(Thread, OneThatBlocksInAScopeIsTerminatedByItsOwnCode) {
    const THREADS_BEFORE threads;
    BLOCKED_THREAD blocked;
    const THR_THREAD thread = thr_thread_create(
        [](void* argument) {
            BLOCKED_THREAD& self = *static_cast<BLOCKED_THREAD*>(argument);
            {
                const THR_BLOCKING_SCOPE scope(BLOCKED_THREAD::unblock, argument);
                self.was_terminated = scope.terminated();
                self.block();
            }
            self.flags.ended = true;
            return 0;
        },
        &blocked, 0);
    ASSERT_NE(thread, nullptr);
    blocked.wait_until_it_blocks();
    EXPECT_EQ(thr_thread_is_running(thread), 1);
    EXPECT_LT(time_to_terminate(thread).count(), 1000);
    EXPECT_TRUE(blocked.flags.ended);
    EXPECT_FALSE(blocked.was_terminated);
    EXPECT_TRUE(threads.are_back());
}

TEST(Thread, OneThatIsTerminatedBeforeItsScopeBeginsIsTold) {
    BLOCKED_THREAD blocked;
    const THR_THREAD thread = thr_thread_create(
        [](void* argument) {
            BLOCKED_THREAD& self = *static_cast<BLOCKED_THREAD*>(argument);
            while (!self.flags.go_on) {
                thr_msleep(1);
            }
            thr_msleep(200);  // by now the termination has begun
            const THR_BLOCKING_SCOPE scope(BLOCKED_THREAD::unblock, argument);
            self.was_terminated = scope.terminated();
            self.flags.ended = true;
            return 0;
        },
        &blocked, 0);
    ASSERT_NE(thread, nullptr);
    blocked.flags.go_on = true;
    thr_thread_terminate_and_possibly_crash(thread);
    EXPECT_TRUE(blocked.flags.ended);
    EXPECT_TRUE(blocked.was_terminated);
}

TEST(Thread, IsAskedAgainUntilItLeavesItsBlockingCall) {
    BLOCKED_THREAD blocked;
    const THR_THREAD thread = thr_thread_create(
        [](void* argument) {
            BLOCKED_THREAD& self = *static_cast<BLOCKED_THREAD*>(argument);
            const THR_BLOCKING_SCOPE scope(BLOCKED_THREAD::unblock, argument);
            self.flags.started = true;
            while (self.calls < 3) {
                thr_msleep(1);
            }
            self.flags.ended = true;
            return 0;
        },
        &blocked, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(comes_true([&] { return blocked.flags.started.load(); }));
    EXPECT_LT(time_to_terminate(thread).count(), 1000);
    EXPECT_TRUE(blocked.flags.ended);
}

TEST(Thread, IsNotAskedAnyMoreOnceItsScopeIsOver) {
    BLOCKED_THREAD blocked;
    const THR_THREAD thread = thr_thread_create(
        [](void* argument) {
            BLOCKED_THREAD& self = *static_cast<BLOCKED_THREAD*>(argument);
            {
                const THR_BLOCKING_SCOPE scope(BLOCKED_THREAD::unblock, argument);
                self.block();
            }
            self.scope_is_over = true;
            thr_msleep(200);
            self.flags.ended = true;
            return 0;
        },
        &blocked, 0);
    ASSERT_NE(thread, nullptr);
    blocked.wait_until_it_blocks();
    thr_thread_terminate_and_possibly_crash(thread);
    EXPECT_TRUE(blocked.flags.ended);
    EXPECT_GE(blocked.calls, 1);
    EXPECT_EQ(blocked.late_calls, 0);
}

TEST(Thread, AScopeOnAnotherThreadDoesNothing) {
    int calls = 0;
    const THR_BLOCKING_SCOPE scope([](void* context) { ++*static_cast<int*>(context); }, &calls);
    EXPECT_FALSE(scope.terminated());
    FLAGS flags;
    flags.go_on = true;
    const THR_THREAD thread = thr_thread_create(wait_for_go, &flags, 0);
    thr_thread_terminate_and_possibly_crash(thread);
    EXPECT_EQ(calls, 0);
}

TEST(Thread, OneThatSleepsWithoutAScopeIsCancelled) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers lose track of a thread that the system unwinds";
#endif
    const THREADS_BEFORE threads;
    FLAGS flags;
    const THR_THREAD thread = thr_thread_create(
        [](void* argument) {
            static_cast<FLAGS*>(argument)->started = true;
            thr_msleep(60000);
            static_cast<FLAGS*>(argument)->ended = true;
            return 0;
        },
        &flags, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(comes_true([&] { return flags.started.load(); }));
    EXPECT_LT(time_to_terminate(thread).count(), 10000);
    EXPECT_FALSE(flags.ended);
    EXPECT_TRUE(threads.are_back());
}

TEST(Thread, OneThatHasEndedCanBeTerminated) {
    const THREADS_BEFORE threads;
    FLAGS flags;
    flags.go_on = true;
    const THR_THREAD thread = thr_thread_create(wait_for_go, &flags, 0);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(comes_true([&] { return thr_thread_is_running(thread) == 0; }));
    EXPECT_LT(time_to_terminate(thread).count(), 1000);
    EXPECT_TRUE(threads.are_back());
}

TEST(Thread, AnExceptionThatLeavesTheFunctionEndsItQuietly) {
    FLAGS flags;
    const std::string output = written_by([&] {
        const THR_THREAD thread = thr_thread_create(
            [](void* argument) -> int {
                static_cast<FLAGS*>(argument)->started = true;
                throw std::runtime_error("left the function");
            },
            &flags, 0);
        EXPECT_TRUE(comes_true([&] { return thr_thread_is_running(thread) == 0; }));
        thr_thread_wait(thread);
    });
    EXPECT_TRUE(flags.started);
    EXPECT_EQ(output, "");
}

TEST(Thread, ANullHandleStandsForOneThatHasEnded) {
    EXPECT_EQ(thr_thread_is_running(nullptr), 0);
    thr_thread_wait(nullptr);
    EXPECT_LT(time_to_terminate(nullptr).count(), 1000);
}

TEST(Thread, ManyLeaveNoneBehind) {
    const THREADS_BEFORE threads;
    std::atomic<int> runs{0};
    for (int round = 0; round < 50; ++round) {
        std::vector<THR_THREAD> handles;
        for (int index = 0; index < 10; ++index) {
            handles.push_back(thr_thread_create(
                [](void* argument) { return ++*static_cast<std::atomic<int>*>(argument); }, &runs,
                0));
            ASSERT_NE(handles.back(), nullptr);
        }
        for (std::size_t index = 0; index < handles.size(); ++index) {
            if (index % 2 == 0) {
                thr_thread_wait(handles[index]);
            } else {
                thr_thread_terminate_and_possibly_crash(handles[index]);
            }
        }
    }
    EXPECT_EQ(runs, 500);
    EXPECT_TRUE(threads.are_back());
}

TEST(Sleep, LastsAtLeastItsTime) {
    const auto start = CLOCK::now();
    thr_msleep(120);
    EXPECT_GE(CLOCK::now() - start, std::chrono::milliseconds(119));
}

}  // namespace
