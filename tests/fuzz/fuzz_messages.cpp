// Messages: how arguments from outside are filled into texts.
//
// Input: a byte (the number of arguments), the arguments as texts, then a literal (a format, a
// slash, and a name).

#include <memory>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/messages.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// The length of "%N!s!" at a place of the format, with N from 1 on in `number`; 0 where there is
// none.
std::size_t placeholder_at(const std::string& format, std::size_t at, std::string& number) {
    std::size_t end = at + 1;
    while (end < format.size() && format[end] >= '0' && format[end] <= '9') {
        ++end;
    }
    if (format[at] != '%' || end + 3 > format.size() || format.substr(end, 3) != "!s!") {
        return 0;
    }
    number = format.substr(at + 1, end - at - 1);
    number.erase(0, number.find_first_not_of('0'));
    return end + 3 - at;
}

// The format with its placeholders replaced, found one argument after another by its number's text.
std::string filled(const std::string& format, const std::vector<std::string>& arguments) {
    std::string text;
    for (std::size_t at = 0; at < format.size();) {
        std::string number;
        const std::size_t length = placeholder_at(format, at, number);
        std::size_t index = 0;
        while (index < arguments.size() && number != std::to_string(index + 1)) {
            ++index;
        }
        if (length == 0 || index == arguments.size()) {
            text += format[at];
            ++at;
        } else {
            text += arguments[index];
            at += length;
        }
    }
    return text;
}

// A message as it is made, as it is posted, and nothing else.
void check(MSG_E* made, unsigned long number, const std::string& text, const std::string& name) {
    FUZZ_RECEIVER receiver;
    MUST_HOLD(made->id() == number);
    MUST_HOLD(made->text() == text);
    MUST_HOLD(made->name() == name);
    post_and_release(made);
    MUST_HOLD((receiver.posts == FUZZ_RECEIVER::POSTS{{number, text}}));
    MUST_HOLD(receiver.lines.empty());
    MUST_HOLD(receiver.errors.empty());
}

void check_free_form(const std::string& literal, const std::vector<std::string>& arguments) {
    std::size_t slash = literal.size();
    while (slash > 0 && literal[slash - 1] != '/') {
        --slash;
    }
    const std::string format = slash == 0 ? literal : literal.substr(0, slash - 1);
    const std::string name = slash == 0 ? std::string() : literal.substr(slash);
    std::unique_ptr<MSG_E> message(new MSG_E(nullptr));
    message->fill_args(literal, arguments);
    message->set_id(7);
    check(message.release(), 7, filled(format, arguments), name);
}

void check_reports(const std::string& text) {
    FUZZ_RECEIVER receiver;
    PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, "Fail to load module %s", text.c_str());
    MUST_HOLD(receiver.lines ==
              std::vector<std::string>{"Fail to load module " + up_to_zero(text)});
    bool thrown = false;
    try {
        fail(1785, "Python script %s doest not exist", text);
    } catch (const MSG_RECEIVER::INTERNAL_ERROR& error) {
        thrown = true;
        MUST_HOLD(error.line == 1785);
        MUST_HOLD(error.text == "Python script " + up_to_zero(text) + " doest not exist");
    }
    MUST_HOLD(thrown);
    MUST_HOLD(receiver.posts.empty());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FUZZ_INPUT input(data, size);
    std::vector<std::string> arguments(input.below(13));
    for (std::string& argument : arguments) {
        argument = input.text();
    }
    const std::string literal = input.rest();
    const std::string first = arguments.empty() ? literal : arguments[0];
    check(make_execution_failure_msg(first, literal), 20351,
          "Fail to execute function " + first + " in file " + literal,
          "EPGM_PYTHON_PYTHON_EXECUTION_FAILURE");
    check(make_execution_failure_file_msg(first), 20354, "Fail to execute file " + first,
          "EPGM_PYTHON_PYTHON_EXECUTION_FAILURE_FILE");
    check(make_execution_failure_reason_msg(literal), 20353, literal,
          "EPGM_PYTHON_PYTHON_EXECUTION_FAILURE_REASON");
    check_free_form(literal, arguments);
    check_reports(literal);
    return 0;
}
