// What goes between a host and its worker process.
//
// A frame is a header, a record (what is said, serialised), and the blocks of bytes that the record
// announces, which are neither copied into a record nor out of one:
//
//     mark . type . size of the record | record | block ... block
//
// Both ends are of one build on one machine: numbers go as they stand in memory. What a reader gets
// is not trusted all the same: it is refused unless it is a frame that may come in this direction,
// whole and without a byte too many, and it costs no more memory than the bytes that came.
//
// Frames are written and read by one thread at a time.

#ifndef PGM_PGM_PYTHON_WORKER_FRAMES_H
#define PGM_PGM_PYTHON_WORKER_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pgm/pgm_python/call_road.h"
#include "pgm/pgm_python/script_run.h"

// A part of what is written.
struct FRAME_PART {
    const void* data;
    std::size_t size;
};

// Where frames come from and go to. False: the other side has ended, or the time is up.
class FRAME_STREAM {
public:
    FRAME_STREAM() = default;
    virtual ~FRAME_STREAM() = default;
    FRAME_STREAM(const FRAME_STREAM&) = delete;
    FRAME_STREAM& operator=(const FRAME_STREAM&) = delete;

    // Fills the whole buffer.
    virtual bool read(void* buffer, std::size_t size) = 0;

    // Writes all parts, one after the other.
    virtual bool write(const std::vector<FRAME_PART>& parts) = 0;
};

enum class FRAME_TYPE : std::uint32_t {
    // From the host.
    call = 1,  // a CALL_REQUEST
    run,       // a RUN_REQUEST
    go_on,     // the reply to an event that waits for one; to start_back_channel with text, the
               // announced channel

    // From the worker. Each waits for go_on, save for those that say otherwise, so that what the
    // worker and the host write stays in order.
    taken,           // the request has come; no reply
    line,            // an error line: number (the type), text
    post,            // a posted message: number, text
    internal_error,  // text, module, source, number (the line)
    fatal_error,     // the report of a fatal internal error has returned; no reply
    stage,           // the module's name is known (text), and if flag, the function gets called;
                     // no reply
    start_back_channel,  // start the late listener
    complete,            // end the call of the late listener: flag (success), text (the function),
                         // module (the file)
    answer_bytes,        // the bytes of the answer that is to come; no reply
    answer,              // an ANSWER; no reply, the worker ends
    run_answer,          // flag (success); no reply, the worker ends
};

// A frame that is neither a request nor an answer. What a type does not use is empty.
struct WORKER_EVENT {
    FRAME_TYPE type = FRAME_TYPE::go_on;
    std::uint32_t number = 0;
    bool flag = false;
    std::string text;
    std::string module;
    std::string source;
};

// The suite's folders as the host finds them, which may come from the place of its program.
struct SUITE_FOLDERS {
    std::string common;
    std::string unshipped;
    std::string bin;
};

// A request in the worker, with all that it refers to.
class RECEIVED_REQUEST {
public:
    // Null unless it is a call.
    const CALL_REQUEST* call() const { return m_call.get(); }
    const RUN_REQUEST& run() const { return m_run; }
    const SUITE_FOLDERS& folders() const { return m_folders; }

private:
    friend class REQUEST_READER;
    std::unique_ptr<CALL_REQUEST> m_call;
    RUN_REQUEST m_run;
    SUITE_FOLDERS m_folders;
    std::deque<std::string> m_texts;
    std::deque<std::map<std::string, std::string>> m_maps;
    std::deque<OWNED_BYTES> m_bytes;
};

// Each writes one frame; false as FRAME_STREAM::write.
bool write_call(FRAME_STREAM& stream, const CALL_REQUEST& request, const SUITE_FOLDERS& folders);
bool write_run(FRAME_STREAM& stream, const RUN_REQUEST& request, const SUITE_FOLDERS& folders);
bool write_event(FRAME_STREAM& stream, const WORKER_EVENT& event);
bool write_answer_bytes(FRAME_STREAM& stream, const unsigned char* bytes, std::size_t size);
bool write_answer(FRAME_STREAM& stream, const ANSWER& answer, bool bytes_were_sent = false);

enum class FRAME_OUTCOME {
    whole,
    ended,    // the stream ended, or the time was up
    refused,  // what came is no such frame; nothing more can be read
};

// Reads the host's next frame: a request, into `request`, or go_on, into `event`. The type of the
// frame is event.type in each case.
FRAME_OUTCOME read_from_host(FRAME_STREAM& stream, WORKER_EVENT& event, RECEIVED_REQUEST& request);

// Reads the worker's next frame: an answer, into `answer`, or another event. Bytes that come before
// their answer wait in `answer.bytes`. The bytes of an answer to `form` that is a secret are
// overwritten wherever they go; an answer that does not have what the form says is refused.
FRAME_OUTCOME read_from_worker(FRAME_STREAM& stream, const ANSWER_FORM& form, WORKER_EVENT& event,
                               ANSWER& answer);

#endif
