#include "tools/tool_messages.h"

#include <Python.h>

#include <exception>
#include <iostream>

#include "pgm_python_version.h"
#include "tools/json_text.h"
#include "tools/tool_platform.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

struct INTERNAL_ERROR_REPORTED {};

class TOOL_RECEIVER : public MSG_RECEIVER {
public:
    void line(int /*type*/, const std::string& text) override { tell("error", text, ""); }
    void post(unsigned long number, const std::string& text) override {
        tell("error", text, std::to_string(number));
    }
    void internal_error(const INTERNAL_ERROR& error) override {
        if (keeps) {
            keep(JSON_OBJECT()
                     .text("kind", "internal error")
                     .text("text", error.text)
                     .number("line", error.line));
        } else {
            print(to_text(error));
        }
        throw INTERNAL_ERROR_REPORTED();
    }

    void tell(const std::string& kind, const std::string& text, const std::string& number) {
        reported = true;
        if (!keeps) {
            print(kind + (number.empty() ? "" : " " + number) + ": " + text);
            return;
        }
        JSON_OBJECT report;
        report.text("kind", kind).text("text", text);
        if (!number.empty()) {
            report.json("number", number);
        }
        keep(report);
    }

    void print(const std::string& text) const { std::cerr << prefix << text << std::endl; }

    void keep(const JSON_OBJECT& report) { kept += (kept.empty() ? "" : ",") + report.str(); }

    bool reported = false;
    bool keeps = false;
    std::string kept;
    std::string prefix;
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

std::vector<std::string> TOOL_ARGUMENTS::texts() const {
    return std::vector<std::string>(m_texts.empty() ? m_texts.end() : m_texts.begin() + 1,
                                    m_texts.end());
}

int run_guarded(const std::function<int()>& work) {
    int status = TOOL_INTERNAL_ERROR;
    try {
        status = work();
    } catch (const INTERNAL_ERROR_REPORTED&) {
    } catch (const USAGE_ERROR& error) {
        report_error(error.what());
        status = TOOL_BAD_USAGE;
    } catch (const std::exception& error) {
        report_error(error.what());
        status = TOOL_FAILURE;
    }
    tool_platform::leave_if_forked(status);
    return status;
}

int run_tool(const std::function<int()>& work) {
    tool_platform::leave_if_forked(TOOL_SUCCESS);  // the process that is to stay
    tool_platform::set_locale();
    MSG_RECEIVER::set(&receiver);
    const int status = run_guarded(work);
    MSG_RECEIVER::set(nullptr);
    return status;
}

void report_error(const std::string& text) {
    receiver.tell("error", text, "");
}

void report_usage(const std::string& text) {
    if (receiver.keeps) {
        receiver.tell("usage", text, "");
    } else {
        receiver.print(text);
    }
}

void keep_reports() {
    receiver.keeps = true;
}

void set_report_prefix(const std::string& prefix) {
    receiver.prefix = prefix;
}

void forget_reports() {
    receiver.reported = false;
    receiver.kept.clear();
}

bool tool_has_reported() {
    return receiver.reported;
}

std::string reports_as_json() {
    return "[" + receiver.kept + "]";
}

std::string version_text(const std::string& tool) {
    const std::string version = Py_GetVersion();
    const std::string file =
        tool_platform::file_that_holds(reinterpret_cast<const void*>(&Py_GetVersion));
    std::string text = tool + " " + PGM_PYTHON_VERSION + "\nPython ";
    text += version.substr(0, version.find(' '));
    if (!file.empty()) {
        text += " (" + file + ")";
    }
    return text;
}
