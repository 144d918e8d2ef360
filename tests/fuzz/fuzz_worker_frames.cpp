// Frames that come from a worker, and from a host: whatever they are made of, a reader gives one of
// its outcomes, takes no more memory than what came can ask for, and what it took whole it writes
// again byte for byte.
//
// Input: a byte (the form of the answer; 128: it comes from the host), then the stream.

#include <cstring>

#include "pgm/pgm_python/worker_frames.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

class INPUT_STREAM : public FRAME_STREAM {
public:
    explicit INPUT_STREAM(std::string bytes) : m_bytes(std::move(bytes)) {}

    bool read(void* buffer, std::size_t size) override {
        if (size > m_bytes.size() - m_at) {
            m_at = m_bytes.size();
            return false;
        }
        std::memcpy(buffer, m_bytes.data() + m_at, size);
        m_at += size;
        return true;
    }
    bool write(const std::vector<FRAME_PART>& /*parts*/) override { return false; }

    std::string taken_since(std::size_t start) const { return m_bytes.substr(start, m_at - start); }
    std::size_t at() const { return m_at; }

private:
    std::string m_bytes;
    std::size_t m_at = 0;
};

class OUTPUT_STREAM : public FRAME_STREAM {
public:
    bool read(void* /*buffer*/, std::size_t /*size*/) override { return false; }
    bool write(const std::vector<FRAME_PART>& parts) override {
        for (const FRAME_PART& part : parts) {
            if (part.size > 0) {
                bytes.append(static_cast<const char*>(part.data), part.size);
            }
        }
        return true;
    }

    std::string bytes;
};

void check_frames_of_host(INPUT_STREAM& stream) {
    for (;;) {
        const std::size_t start = stream.at();
        WORKER_EVENT event;
        RECEIVED_REQUEST request;
        if (read_from_host(stream, event, request) != FRAME_OUTCOME::whole) {
            return;
        }
        OUTPUT_STREAM again;
        if (event.type == FRAME_TYPE::go_on) {
            MUST_HOLD(write_event(again, event));
            MUST_HOLD(again.bytes == stream.taken_since(start));
        } else if (event.type == FRAME_TYPE::run) {
            MUST_HOLD(request.call() == nullptr);
            MUST_HOLD(!request.run().is_script || !request.run().arguments.empty());
        } else {
            MUST_HOLD(event.type == FRAME_TYPE::call && request.call() != nullptr);
            const CALL_REQUEST& call = *request.call();
            MUST_HOLD(call.form.item_count <= call.form.items.size());
            for (const ARGUMENT_ROW& row : call.rows) {
                MUST_HOLD(row.argument.kind != ARGUMENT::KIND::text ||
                          row.argument.text != nullptr);
                MUST_HOLD(row.argument.kind != ARGUMENT::KIND::map || row.argument.map != nullptr);
            }
        }
    }
}

void check_frames_of_worker(INPUT_STREAM& stream, const ANSWER_FORM& form) {
    ANSWER answer;
    bool bytes_were_sent = false;
    for (;;) {
        const std::size_t start = stream.at();
        WORKER_EVENT event;
        if (read_from_worker(stream, form, event, answer) != FRAME_OUTCOME::whole) {
            return;
        }
        OUTPUT_STREAM again;
        switch (event.type) {
            case FRAME_TYPE::answer_bytes:
                MUST_HOLD(form.kind == ANSWER_FORM::KIND::bytes && !bytes_were_sent);
                bytes_were_sent = true;
                MUST_HOLD(write_answer_bytes(again, answer.bytes.data(), answer.bytes.size()));
                break;
            case FRAME_TYPE::answer:
                MUST_HOLD(!bytes_were_sent || answer.bytes.data() != nullptr);
                MUST_HOLD(!answer.success ||
                          answer.numbers.size() ==
                              (form.kind == ANSWER_FORM::KIND::number ? 1U : 0U));
                MUST_HOLD(write_answer(again, answer, bytes_were_sent));
                answer = ANSWER();
                bytes_were_sent = false;
                break;
            default:
                MUST_HOLD(write_event(again, event));
        }
        MUST_HOLD(again.bytes == stream.taken_since(start));
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FUZZ_INPUT input(data, size);
    const unsigned kind = input.byte();
    INPUT_STREAM stream(input.rest());
    if ((kind & 128) != 0) {
        check_frames_of_host(stream);
    } else {
        // All but lists of items, which need checks.
        check_frames_of_worker(stream,
                               answer_of(static_cast<ANSWER_FORM::KIND>(
                                   kind % static_cast<unsigned>(ANSWER_FORM::KIND::items))));
    }
    return 0;
}
