#include "pgm/pgm_python/worker_call.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <locale>
#include <memory>
#include <sstream>
#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/messages.h"
#include "pgm/pgm_python/worker_frames.h"
#include "pgm/pgm_python/worker_pool.h"

namespace {

void print_line(const char* format, const std::string& first, const std::string& second = "") {
    PGM_COMMON_MSG::print_msg(MSG_TYPE_ERROR, 0, format, first.c_str(), second.c_str());
}

SUITE_FOLDERS suite_folders() {
    return {PGM_COMMON::pgm_get_common_programmer(),
            PGM_COMMON::pgm_get_unshipped_programmer(false), PGM_COMMON::pgm_get_bin_directory()};
}

std::string text_of_seconds(double seconds) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << seconds;
    return stream.str();
}

// One call in a worker.
class HOSTED_CALL {
public:
    // `last` is the frame that ends the call well.
    HOSTED_CALL(const SETTINGS& settings, const ANSWER_FORM& form, ROAD_SURROUNDINGS& surroundings,
                FRAME_TYPE last)
        : m_settings(settings), m_form(form), m_surroundings(surroundings), m_last(last) {}

    // A late listener is to be started.
    void expect_start() { m_start_is_due = true; }

    // The listener runs already.
    void expect_completion() { m_completion_is_due = true; }

    // Makes it; `write_request` writes its request. Returns whether there is an answer, and has
    // told why there is none.
    bool make(const std::function<bool(FRAME_STREAM&)>& write_request) {
        const std::string program =
            m_settings.worker.empty() ? own_worker_program() : m_settings.worker;
        const std::string process_surroundings = surroundings_of_process();
        const CLOCK::time_point begin = CLOCK::now();
        bool anew = false;
        for (;;) {
            TAKEN_WORKER taken = take_worker(program, process_surroundings, anew);
            if (!taken.process) {
                return cannot_start(program, taken.reason);
            }
            WORKER_PROCESS& process = *taken.process;
            process.set_time_limit(time_left(begin));
            const bool greeted = process.greets();
            const bool sent = greeted && process.send_streams() && write_request(process);
            if (greeted) {
                prepare_worker(program, process_surroundings);
            }
            const FRAME_OUTCOME outcome = sent ? serve(process) : FRAME_OUTCOME::ended;
            if (outcome == FRAME_OUTCOME::whole) {
                process.let_go();
                return true;
            }
            const bool time_is_up = outcome == FRAME_OUTCOME::ended && process.time_is_up();
            const std::string how = process.end();
            if (taken.was_waiting && !m_taken && !time_is_up) {
                anew = true;  // it ended while it waited
                continue;
            }
            if (!greeted && !time_is_up) {
                return cannot_start(program, "it does not answer as a worker of this library does");
            }
            print_line("Python worker ended in the call: %s",
                       outcome == FRAME_OUTCOME::refused ? "what it sent cannot be read"
                       : time_is_up ? "time limit of " + text_of_seconds(m_settings.call_timeout) +
                                          " seconds"
                                    : how);
            return false;
        }
    }

    // What has come; to be asked for once.
    ANSWER taken_answer() { return std::move(m_answer); }

    // Whether the listener of a call without an answer still has to be completed.
    bool completion_is_due() const { return m_completion_is_due; }

    // What of its failure the worker itself has reported, at the end of what it had come to.
    bool has_printed_failure() const { return m_has_printed_failure; }
    bool has_posted_failure() const { return m_has_posted_failure; }

    // Whether the listener was told of a success that there is no answer of.
    bool has_completed_well() const { return m_has_completed_well; }

private:
    typedef std::chrono::steady_clock CLOCK;

    // The seconds that are left of the call's limit, one that has gone by being a very short one; 0
    // for no limit.
    double time_left(CLOCK::time_point begin) const {
        constexpr double shortest = 1e-6;
        const double limit = m_settings.call_timeout;
        const std::chrono::duration<double> gone = CLOCK::now() - begin;
        return limit > 0 ? std::max(limit - gone.count(), shortest) : 0;
    }

    static bool cannot_start(const std::string& program, const std::string& reason) {
        print_line("Python worker %s cannot be started: %s", program, reason);
        return false;
    }

    // Serves the worker until its answer has come.
    FRAME_OUTCOME serve(WORKER_PROCESS& process) {
        for (;;) {
            const FRAME_TYPE before = m_event.type;
            const FRAME_OUTCOME outcome = read_from_worker(process, m_form, m_event, m_answer);
            if (outcome != FRAME_OUTCOME::whole) {
                return outcome;
            }
            // That the request has been taken comes first, and once.
            if (m_taken == (m_event.type == FRAME_TYPE::taken)) {
                return FRAME_OUTCOME::refused;
            }
            switch (m_event.type) {
                case FRAME_TYPE::answer:
                case FRAME_TYPE::run_answer:
                    if (m_event.type == FRAME_TYPE::run_answer) {
                        m_answer.success = m_event.flag;
                    }
                    return m_event.type == m_last ? outcome : FRAME_OUTCOME::refused;
                case FRAME_TYPE::answer_bytes:
                    continue;
                case FRAME_TYPE::taken:
                    m_taken = true;
                    continue;
                case FRAME_TYPE::stage:
                    if (!serve_stage()) {
                        return FRAME_OUTCOME::refused;
                    }
                    continue;
                case FRAME_TYPE::line:
                    m_has_printed_failure = true;
                    msg_line(static_cast<int>(m_event.number), m_event.text);
                    break;
                case FRAME_TYPE::post:
                    m_has_posted_failure = true;
                    post(m_event.number, m_event.text);
                    break;
                case FRAME_TYPE::internal_error:
                    MSG_INTERNAL_ERROR::report(m_event.text.c_str(), m_event.module.c_str(),
                                               m_event.source.c_str(),
                                               static_cast<int>(m_event.number));
                    break;
                case FRAME_TYPE::fatal_error:
                    if (before != FRAME_TYPE::internal_error) {
                        return FRAME_OUTCOME::refused;
                    }
                    std::abort();
                case FRAME_TYPE::start_back_channel:
                case FRAME_TYPE::complete:
                    if (!serve_back_channel()) {
                        return FRAME_OUTCOME::refused;
                    }
                    break;
                default:
                    return FRAME_OUTCOME::refused;
            }
            WORKER_EVENT reply;
            reply.text = std::exchange(m_announced_channel, {});
            if (!write_event(process, reply)) {
                return FRAME_OUTCOME::ended;
            }
        }
    }

    // Hears of the module and then of the call, each once.
    bool serve_stage() {
        if (m_event.text.empty() || m_answer.made || m_answer.module.empty() == m_event.flag) {
            return false;
        }
        m_answer.module = m_event.text;
        m_answer.made = m_event.flag;
        m_has_printed_failure = false;
        return true;
    }

    // Starts and completes a late back channel, each once and in this order.
    bool serve_back_channel() {
        const bool starts = m_event.type == FRAME_TYPE::start_back_channel;
        if (!(starts ? m_start_is_due : m_completion_is_due)) {
            return false;
        }
        m_start_is_due = false;
        m_completion_is_due = starts;
        if (starts) {
            m_announced_channel = m_surroundings.start_back_channel();
        } else {
            m_has_completed_well = m_event.flag;
            m_surroundings.complete(m_event.flag, m_event.text, m_event.module);
        }
        return true;
    }

    static void post(unsigned long number, const std::string& text) {
        std::unique_ptr<MSG_E> message(new MSG_E(nullptr));
        message->fill_args(text + "/", {});
        message->set_id(number);
        post_and_release(message.release());
    }

    const SETTINGS& m_settings;
    const ANSWER_FORM& m_form;
    ROAD_SURROUNDINGS& m_surroundings;
    const FRAME_TYPE m_last;
    WORKER_EVENT m_event;
    ANSWER m_answer;
    std::string m_announced_channel;  // which the next reply tells
    bool m_taken = false;
    bool m_start_is_due = false;
    bool m_completion_is_due = false;
    bool m_has_printed_failure = false;
    bool m_has_posted_failure = false;
    bool m_has_completed_well = false;
};

// What a bridge reports of a call that failed where the worker's ended, save for what has been.
void report_failed_call(const CALL_REQUEST& request, const ANSWER& answer,
                        const HOSTED_CALL& call) {
    if (answer.module.empty()) {
        return;
    }
    if (!answer.made) {
        if (!call.has_printed_failure()) {
            print_line("Fail to load module %s", answer.module);
        }
        return;
    }
    if (request.bridge.call_failure != nullptr && !call.has_printed_failure()) {
        print_line("%s", request.bridge.call_failure);
    }
    if (call.has_completed_well() ||
        (request.bridge.posts_call_failure && !call.has_posted_failure())) {
        post_and_release(make_execution_failure_msg(request.function, answer.module));
    }
}

}  // namespace

ANSWER walk_road_in_worker(const CALL_REQUEST& request, ROAD_SURROUNDINGS& surroundings) {
    HOSTED_CALL call(request.settings, request.form, surroundings, FRAME_TYPE::answer);
    if (request.bridge.back_channel == BACK_CHANNEL_PLACEMENT::late) {
        call.expect_start();
    }
    const SUITE_FOLDERS folders = suite_folders();
    if (call.make([&](FRAME_STREAM& stream) { return write_call(stream, request, folders); })) {
        return call.taken_answer();
    }
    ANSWER answer = call.taken_answer();
    answer.success = false;
    answer.bytes = OWNED_BYTES();
    report_failed_call(request, answer, call);
    if (answer.module.empty()) {
        // The completion of an early bridge names it.
        answer.module = std::filesystem::u8path(request.script).stem().u8string();
    }
    if (call.completion_is_due()) {
        surroundings.complete(false, request.function, answer.module);
    }
    return answer;
}

bool walk_run_in_worker(const RUN_REQUEST& request, ROAD_SURROUNDINGS& surroundings) {
    const ANSWER_FORM form = answer_of(ANSWER_FORM::KIND::ignored);
    HOSTED_CALL call(request.settings, form, surroundings, FRAME_TYPE::run_answer);
    if (request.is_script) {
        call.expect_completion();
    }
    const SUITE_FOLDERS folders = suite_folders();
    if (call.make([&](FRAME_STREAM& stream) { return write_run(stream, request, folders); })) {
        return call.taken_answer().success;
    }
    if (call.completion_is_due()) {
        surroundings.complete(false, "", request.arguments.at(0));
    } else if (call.has_completed_well()) {
        post_and_release(make_execution_failure_file_msg(request.arguments.at(0)));
    }
    return false;
}
