#include "pgm/pgm_python/worker_main.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "pgm/pgm_common/pgm_common_folders.h"
#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/messages.h"
#include "pgm/pgm_python/script_run.h"
#include "pgm/pgm_python/worker_frames.h"
#include "pgm/pgm_python/worker_process.h"

namespace {

// What there is to say to the host. Where the host does not want to hear it any more, this process
// ends.
class TALK {
public:
    explicit TALK(HOST_CONNECTION& host) : m_host(host) {}

    // Whether there is a host to talk to: not in a process that the script has forked.
    bool is_possible() const { return m_host.is_own(); }

    void tell(const WORKER_EVENT& event) {
        if (is_possible() && !write_event(m_host, event)) {
            end_worker();
        }
    }

    void tell_bytes(const unsigned char* bytes, std::size_t size) {
        if (!write_answer_bytes(m_host, bytes, size)) {
            end_worker();
        }
    }

    // Tells, and waits until the host has dealt with it. Returns the text of its reply.
    std::string ask(const WORKER_EVENT& event) {
        tell(event);
        WORKER_EVENT reply;
        RECEIVED_REQUEST none;
        if (is_possible() && (read_from_host(m_host, reply, none) != FRAME_OUTCOME::whole ||
                              reply.type != FRAME_TYPE::go_on)) {
            end_worker();
        }
        return reply.text;
    }

    HOST_CONNECTION& host() { return m_host; }

private:
    HOST_CONNECTION& m_host;
};

WORKER_EVENT event_of(FRAME_TYPE type) {
    WORKER_EVENT event;
    event.type = type;
    return event;
}

// Hands reports to the host's receiver.
class HOST_RECEIVER : public MSG_RECEIVER {
public:
    explicit HOST_RECEIVER(TALK& talk) : m_talk(talk) {}

    void line(int type, const std::string& text) override {
        if (!m_talk.is_possible()) {
            std::fprintf(stderr, "error: %s\n", text.c_str());
            return;
        }
        WORKER_EVENT event = event_of(FRAME_TYPE::line);
        event.number = static_cast<std::uint32_t>(type);
        event.text = text;
        m_talk.ask(event);
    }

    void post(unsigned long number, const std::string& text) override {
        if (!m_talk.is_possible()) {
            std::fprintf(stderr, "error %lu: %s\n", number, text.c_str());
            return;
        }
        WORKER_EVENT event = event_of(FRAME_TYPE::post);
        event.number = static_cast<std::uint32_t>(number);
        event.text = text;
        m_talk.ask(event);
    }

    void internal_error(const INTERNAL_ERROR& error) override {
        if (!m_talk.is_possible()) {
            std::fprintf(stderr, "%s\n", to_text(error).c_str());
            std::abort();
        }
        WORKER_EVENT event = event_of(FRAME_TYPE::internal_error);
        event.number = static_cast<std::uint32_t>(error.line);
        event.text = error.text;
        event.module = error.module;
        event.source = error.source;
        m_talk.ask(event);
    }

private:
    TALK& m_talk;
};

// The surroundings of a call whose listener is the host's.
class HOST_SURROUNDINGS : public ROAD_SURROUNDINGS {
public:
    explicit HOST_SURROUNDINGS(TALK& talk) : m_talk(talk) {}

    std::string start_back_channel() override {
        return m_talk.ask(event_of(FRAME_TYPE::start_back_channel));
    }

    void hear_of(const std::string& module, bool is_called) override {
        WORKER_EVENT event = event_of(FRAME_TYPE::stage);
        event.text = module;
        event.flag = is_called;
        m_talk.tell(event);
    }

    // Large ones go to the host from where they are: that is cheaper than to keep them until the
    // interpreter has ended.
    OWNED_BYTES take_bytes(const unsigned char* bytes, std::size_t size) override {
        constexpr std::size_t large = std::size_t{1} << 20;
        if (size < large || !m_talk.is_possible()) {
            return ROAD_SURROUNDINGS::take_bytes(bytes, size);
        }
        m_talk.tell_bytes(bytes, size);
        m_bytes_were_sent = true;
        return OWNED_BYTES();
    }

    bool bytes_were_sent() const { return m_bytes_were_sent; }

    void complete(bool success, const std::string& function, const std::string& file) override {
        WORKER_EVENT event = event_of(FRAME_TYPE::complete);
        event.flag = success;
        event.text = function;
        event.module = file;
        m_talk.ask(event);
    }

private:
    TALK& m_talk;
    bool m_bytes_were_sent = false;
};

// Remembers an internal error, until there is a call that it can be told to.
class WAITING_RECEIVER : public MSG_RECEIVER {
public:
    void line(int /*type*/, const std::string& /*text*/) override {}
    void post(unsigned long /*number*/, const std::string& /*text*/) override {}
    [[noreturn]] void internal_error(const INTERNAL_ERROR& error) override { throw error; }
};

// The report of an internal error that has returned ends the host, if it was a fatal one.
TALK* the_talk = nullptr;

void tell_of_fatal_error() {
    if (the_talk->is_possible()) {
        the_talk->tell(event_of(FRAME_TYPE::fatal_error));
        end_worker();
    }
}

// Starts the interpreter; what prevents it, with an empty text if nothing does.
MSG_RECEIVER::INTERNAL_ERROR start_interpreter() {
    WAITING_RECEIVER receiver;
    MSG_RECEIVER* const before = MSG_RECEIVER::set(&receiver);
    MSG_RECEIVER::INTERNAL_ERROR found;
    try {
        INTERPRETER_SESSION::start_ahead();
    } catch (const MSG_RECEIVER::INTERNAL_ERROR& error) {
        found = error;
    }
    MSG_RECEIVER::set(before);
    return found;
}

void answer_request(TALK& talk, const RECEIVED_REQUEST& request) {
    HOST_SURROUNDINGS surroundings(talk);
    if (request.call() != nullptr) {
        const ANSWER answer = walk_road(*request.call(), surroundings);
        std::fflush(nullptr);
        if (talk.is_possible()) {
            talk.host().leave_folder();
            write_answer(talk.host(), answer, surroundings.bytes_were_sent());
        }
        return;
    }
    WORKER_EVENT answer = event_of(FRAME_TYPE::run_answer);
    answer.flag = walk_run(request.run(), surroundings);
    std::fflush(nullptr);
    talk.host().leave_folder();
    talk.tell(answer);
}

void serve_host(HOST_CONNECTION& host) {
    TALK talk(host);
    // This process ends before the object does.
    // cppcheck-suppress danglingLifetime
    the_talk = &talk;
    const MSG_RECEIVER::INTERNAL_ERROR obstacle = start_interpreter();
    host.release_streams();
    host.leave_folder();
    WORKER_EVENT event;
    RECEIVED_REQUEST request;
    if (!host.receive_streams() || read_from_host(host, event, request) != FRAME_OUTCOME::whole ||
        event.type == FRAME_TYPE::go_on) {
        end_worker();
    }
    talk.tell(event_of(FRAME_TYPE::taken));
    HOST_RECEIVER receiver(talk);
    MSG_RECEIVER::set(&receiver);
    tell_of_fatal_reports(tell_of_fatal_error);
    if (!obstacle.text.empty()) {
        MSG_INTERNAL_ERROR::report(obstacle.text.c_str(), obstacle.module.c_str(),
                                   obstacle.source.c_str(), obstacle.line);
        tell_of_fatal_error();
    }
    const SUITE_FOLDERS& folders = request.folders();
    PGM_COMMON_FOLDERS::set(folders.common, folders.unshipped, folders.bin);
    answer_request(talk, request);
    end_worker();
}

}  // namespace

int pgm_python_worker_main(int argc, char** argv) {
    return serve_worker(argc, argv, serve_host);
}
