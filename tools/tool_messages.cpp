#include "tools/tool_messages.h"

#include <exception>
#include <iostream>
#include <string>

#include "tools/tool_platform.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

struct INTERNAL_ERROR_REPORTED {};

class TOOL_RECEIVER : public MSG_RECEIVER {
public:
    void line(int /*type*/, const std::string& text) override {
        reported = true;
        std::cerr << "error: " << text << std::endl;
    }
    void post(unsigned long number, const std::string& text) override {
        reported = true;
        std::cerr << "error " << number << ": " << text << std::endl;
    }
    void internal_error(const INTERNAL_ERROR& error) override {
        std::cerr << to_text(error) << std::endl;
        throw INTERNAL_ERROR_REPORTED();
    }

    bool reported = false;
};

TOOL_RECEIVER receiver;

}  // namespace

TOOL_ARGUMENTS::TOOL_ARGUMENTS(int argc, char** argv)
    : m_texts(tool_platform::command_line(argc, argv)) {
    for (const std::string& text : m_texts) {
        m_values.push_back(text.c_str());
    }
    m_values.push_back(nullptr);
}

int run_tool(const std::function<int()>& work) {
    tool_platform::set_locale();
    MSG_RECEIVER::set(&receiver);
    int status = TOOL_INTERNAL_ERROR;
    try {
        status = work();
    } catch (const INTERNAL_ERROR_REPORTED&) {
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << std::endl;
        status = TOOL_FAILURE;
    }
    MSG_RECEIVER::set(nullptr);
    return status;
}

bool tool_has_reported() {
    return receiver.reported;
}
