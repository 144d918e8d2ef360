#include "pgm/pgm_python/worker_frames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include "tests/support.h"

namespace {

// Arrays of bytes whose release is watched, and how many of them still held a secret then.
std::vector<const void*>* watched = nullptr;
int released_empty = 0;
int released_full = 0;
constexpr unsigned char secret_byte = 0xA7;

}  // namespace

void* operator new[](std::size_t size) {
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete[](void* memory) noexcept {
    if (watched != nullptr && std::count(watched->begin(), watched->end(), memory) > 0) {
        const bool is_full = *static_cast<const unsigned char*>(memory) == secret_byte;
        ++(is_full ? released_full : released_empty);
    }
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    operator delete[](memory);
}

namespace {

// What is written is what can be read.
class MEMORY_STREAM : public FRAME_STREAM {
public:
    bool read(void* buffer, std::size_t size) override {
        largest_read = std::max(largest_read, size);
        const std::size_t count = std::min(size, bytes.size() - at);
        std::memcpy(buffer, bytes.data() + at, count);
        at += count;
        return count == size;
    }

    bool write(const std::vector<FRAME_PART>& parts) override {
        for (const FRAME_PART& part : parts) {
            if (part.size > 0) {
                bytes.append(static_cast<const char*>(part.data), part.size);
            }
        }
        return true;
    }

    std::string bytes;
    std::size_t at = 0;
    std::size_t largest_read = 0;
};

// Where the parts of a header are.
constexpr std::size_t type_at = 8;
constexpr std::size_t record_size_at = 16;
constexpr std::size_t header_size = 24;

template <typename NUMBER>
void put(std::string& bytes, std::size_t at, NUMBER number) {
    std::memcpy(&bytes[at], &number, sizeof number);
}

const std::string text("text with \0 a zero byte", 23);
const std::map<std::string, std::string> map = {{"b", "2"}, {"a", std::string(300, 'x')}, {"", ""}};
const std::vector<unsigned char> some_bytes = {0, 1, 2, 0xFF, 0xFE};

CALL_REQUEST request_of_everything() {
    CALL_REQUEST request(BRIDGE(1234)
                             .with_late_back_channel()
                             .printing_call_failure("Fail to call %s")
                             .without_suite_folders()
                             .placing_arguments_one_by_one()
                             .keeping_result_until_completed());
    request.script = "/folder/script.py";
    request.function = "function";
    request.script_arguments = {"--one", "", "three"};
    request.tuple_made = {"pArgs != NULL", 17};
    request.rows = {
        {text_argument(text), {"made", 1}, {"placed", 2}},
        {number_argument(0xFFFFFFFFUL), {nullptr, 3}, {"placed", 4}},
        {bytes_argument(some_bytes.data(), some_bytes.size()), {"made", 5}, {"placed", 6}},
        {bytes_argument(nullptr, 77), {"made", 7}, {"placed", 8}},
        {hex_argument(some_bytes.data(), 2), {"made", 9}, {"placed", 10}},
        {flag_argument(true), {nullptr, 0}, {"placed", 11}},
        {map_argument(map), {"made", 12}, {"placed", 13}},
        {filled_in_argument(32), {"made", 14}, {"placed", 15}},
    };
    request.form = {ANSWER_FORM::KIND::items,
                    {"list_size == 2", 20},
                    {"second", 21},
                    {{{ANSWER_FORM::KIND::bytes, {"there", 22}, true},
                      {ANSWER_FORM::KIND::number, {}, false},
                      {}}},
                    2};
    request.settings.reasons = PGM_PYTHON_REASONS::announced;
    request.settings.traceback = true;
    return request;
}

ANSWER answer_of_items() {
    ANSWER answer;
    answer.success = true;
    answer.made = true;
    answer.module = "module";
    answer.text = text;
    answer.numbers = {0xFFFFFFFFUL};
    answer.bytes = OWNED_BYTES(3);
    std::memcpy(answer.bytes.data(), "abc", 3);
    return answer;
}

std::string bytes_of_answer() {
    MEMORY_STREAM stream;
    EXPECT_TRUE(write_answer(stream, answer_of_items()));
    return stream.bytes;
}

FRAME_OUTCOME outcome_of(const std::string& bytes, const ANSWER_FORM& form, ANSWER& answer,
                         MEMORY_STREAM& stream) {
    stream.bytes = bytes;
    WORKER_EVENT event;
    return read_from_worker(stream, form, event, answer);
}

FRAME_OUTCOME outcome_of(const std::string& bytes,
                         const ANSWER_FORM& form = request_of_everything().form) {
    MEMORY_STREAM stream;
    ANSWER answer;
    return outcome_of(bytes, form, answer, stream);
}

bool equal(const CHECK& one, const CHECK& other) {
    const bool same_text = one.text == nullptr || other.text == nullptr
                               ? one.text == other.text
                               : std::strcmp(one.text, other.text) == 0;
    return same_text && one.line == other.line;
}

TEST(WorkerFrames, ACallArrivesAsItWasSent) {
    const CALL_REQUEST sent = request_of_everything();
    MEMORY_STREAM stream;
    ASSERT_TRUE(write_call(stream, sent, {"common", "unshipped", "bin"}));
    WORKER_EVENT event;
    RECEIVED_REQUEST received;
    ASSERT_EQ(read_from_host(stream, event, received), FRAME_OUTCOME::whole);
    EXPECT_EQ(event.type, FRAME_TYPE::call);
    EXPECT_EQ(stream.at, stream.bytes.size());
    EXPECT_EQ(received.folders().common, "common");
    EXPECT_EQ(received.folders().unshipped, "unshipped");
    EXPECT_EQ(received.folders().bin, "bin");
    ASSERT_NE(received.call(), nullptr);
    const CALL_REQUEST& call = *received.call();
    EXPECT_EQ(call.bridge.line, 1234);
    EXPECT_EQ(call.bridge.back_channel, BACK_CHANNEL_PLACEMENT::late);
    EXPECT_STREQ(call.bridge.module_name_check, "filename.size()");
    EXPECT_STREQ(call.bridge.lookup_failure, "Fail to find function %s");
    EXPECT_STREQ(call.bridge.call_failure, "Fail to call %s");
    EXPECT_FALSE(call.bridge.posts_call_failure);
    EXPECT_TRUE(call.bridge.checks_script);
    EXPECT_TRUE(call.bridge.sets_argument_vector);
    EXPECT_FALSE(call.bridge.sets_suite_folders);
    EXPECT_FALSE(call.bridge.builds_arguments_first);
    EXPECT_TRUE(call.bridge.places_one_by_one);
    EXPECT_TRUE(call.bridge.keeps_result);
    EXPECT_EQ(call.script, sent.script);
    EXPECT_EQ(call.function, sent.function);
    EXPECT_EQ(call.script_arguments, sent.script_arguments);
    EXPECT_TRUE(equal(call.tuple_made, sent.tuple_made));
    EXPECT_EQ(call.settings.reasons, PGM_PYTHON_REASONS::announced);
    EXPECT_TRUE(call.settings.traceback);
    ASSERT_EQ(call.rows.size(), sent.rows.size());
    for (std::size_t row = 0; row < sent.rows.size(); ++row) {
        const ARGUMENT& argument = call.rows[row].argument;
        const ARGUMENT& original = sent.rows[row].argument;
        EXPECT_TRUE(equal(call.rows[row].made, sent.rows[row].made)) << row;
        EXPECT_TRUE(equal(call.rows[row].placed, sent.rows[row].placed)) << row;
        EXPECT_EQ(argument.kind, original.kind) << row;
        EXPECT_EQ(argument.number, original.number) << row;
        EXPECT_EQ(argument.flag, original.flag) << row;
        ASSERT_EQ(argument.size, original.size) << row;
        ASSERT_EQ(argument.bytes == nullptr, original.bytes == nullptr) << row;
        EXPECT_TRUE(original.bytes == nullptr ||
                    std::memcmp(argument.bytes, original.bytes, original.size) == 0)
            << row;
    }
    EXPECT_EQ(*call.rows[0].argument.text, text);
    EXPECT_EQ(*call.rows[6].argument.map, map);
    EXPECT_EQ(call.form.kind, ANSWER_FORM::KIND::items);
    EXPECT_EQ(call.form.item_count, 2U);
    EXPECT_TRUE(equal(call.form.check, sent.form.check));
    EXPECT_TRUE(equal(call.form.second_check, sent.form.second_check));
    EXPECT_EQ(call.form.items[0].kind, ANSWER_FORM::KIND::bytes);
    EXPECT_TRUE(equal(call.form.items[0].there, sent.form.items[0].there));
    EXPECT_TRUE(call.form.items[0].fails_the_call);
    EXPECT_EQ(call.form.items[1].there.text, nullptr);
}

TEST(WorkerFrames, ARunArrivesAsItWasSent) {
    RUN_REQUEST sent;
    sent.is_script = true;
    sent.command = text;
    sent.arguments = {"script.py", "", text};
    MEMORY_STREAM stream;
    ASSERT_TRUE(write_run(stream, sent, {"c", "u", "b"}));
    WORKER_EVENT event;
    RECEIVED_REQUEST received;
    ASSERT_EQ(read_from_host(stream, event, received), FRAME_OUTCOME::whole);
    EXPECT_EQ(event.type, FRAME_TYPE::run);
    EXPECT_EQ(received.call(), nullptr);
    EXPECT_TRUE(received.run().is_script);
    EXPECT_EQ(received.run().command, text);
    EXPECT_EQ(received.run().arguments, sent.arguments);
}

TEST(WorkerFrames, AScriptWithoutAPathIsRefused) {
    RUN_REQUEST sent;
    sent.is_script = true;
    MEMORY_STREAM stream;
    ASSERT_TRUE(write_run(stream, sent, {"c", "u", "b"}));
    WORKER_EVENT event;
    RECEIVED_REQUEST received;
    EXPECT_EQ(read_from_host(stream, event, received), FRAME_OUTCOME::refused);
}

TEST(WorkerFrames, EventsArriveAsTheyWereSentAndOneByOne) {
    WORKER_EVENT sent;
    sent.type = FRAME_TYPE::internal_error;
    sent.number = 4000000000U;
    sent.flag = true;
    sent.text = text;
    sent.module = "module";
    sent.source = "source";
    MEMORY_STREAM stream;
    ASSERT_TRUE(write_event(stream, sent));
    sent.type = FRAME_TYPE::taken;
    ASSERT_TRUE(write_event(stream, sent));
    ANSWER answer;
    WORKER_EVENT event;
    const ANSWER_FORM form;
    ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
    EXPECT_EQ(event.type, FRAME_TYPE::internal_error);
    EXPECT_EQ(event.number, 4000000000U);
    EXPECT_TRUE(event.flag);
    EXPECT_EQ(event.text, text);
    EXPECT_EQ(event.module, "module");
    EXPECT_EQ(event.source, "source");
    ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
    EXPECT_EQ(event.type, FRAME_TYPE::taken);
    EXPECT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::ended);
}

TEST(WorkerFrames, AnAnswerArrivesAsItWasSent) {
    MEMORY_STREAM stream;
    ANSWER answer;
    ASSERT_EQ(outcome_of(bytes_of_answer(), request_of_everything().form, answer, stream),
              FRAME_OUTCOME::whole);
    EXPECT_TRUE(answer.success);
    EXPECT_TRUE(answer.made);
    EXPECT_EQ(answer.module, "module");
    EXPECT_EQ(answer.text, text);
    EXPECT_EQ(answer.numbers, (std::vector<unsigned long>{0xFFFFFFFFUL}));
    ASSERT_EQ(answer.bytes.size(), 3U);
    EXPECT_EQ(std::memcmp(answer.bytes.data(), "abc", 3), 0);
}

TEST(WorkerFrames, NoBytesAreAnotherThingThanBytesOfNoLength) {
    ANSWER sent;
    MEMORY_STREAM stream;
    ANSWER answer;
    WORKER_EVENT event;
    const ANSWER_FORM form = answer_of(ANSWER_FORM::KIND::bytes);
    ASSERT_TRUE(write_answer(stream, sent));
    ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
    EXPECT_EQ(answer.bytes.data(), nullptr);
    sent.bytes = OWNED_BYTES(0);
    ASSERT_TRUE(write_answer(stream, sent));
    ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
    EXPECT_NE(answer.bytes.data(), nullptr);
}

// A stream with the bytes "xyz" ahead of an answer that does or does not speak of them.
std::string bytes_ahead_of_answer(bool bytes_were_sent) {
    MEMORY_STREAM stream;
    const unsigned char bytes[] = {'x', 'y', 'z'};
    EXPECT_TRUE(write_answer_bytes(stream, bytes, sizeof bytes));
    EXPECT_TRUE(write_answer(stream, answer_of_items(), bytes_were_sent));
    return stream.bytes;
}

TEST(WorkerFrames, BytesThatComeAheadOfTheirAnswerAreTheAnswers) {
    MEMORY_STREAM stream;
    stream.bytes = bytes_ahead_of_answer(true);
    const ANSWER_FORM form = request_of_everything().form;
    WORKER_EVENT event;
    ANSWER answer;
    ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
    EXPECT_EQ(event.type, FRAME_TYPE::answer_bytes);
    EXPECT_FALSE(answer.success);
    ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
    EXPECT_EQ(event.type, FRAME_TYPE::answer);
    EXPECT_EQ(stream.at, stream.bytes.size());
    EXPECT_TRUE(answer.success);
    EXPECT_EQ(answer.numbers, (std::vector<unsigned long>{0xFFFFFFFFUL}));
    ASSERT_EQ(answer.bytes.size(), 3U);
    EXPECT_EQ(std::memcmp(answer.bytes.data(), "xyz", 3), 0);
}

TEST(WorkerFrames, BytesAheadOfAnAnswerThatDoesNotFitThemAreRefused) {
    const ANSWER_FORM form = request_of_everything().form;
    WORKER_EVENT event;
    {
        MEMORY_STREAM stream;
        ANSWER answer;
        stream.bytes = bytes_ahead_of_answer(false);
        ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
        EXPECT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::refused);
    }
    {
        MEMORY_STREAM stream;
        EXPECT_TRUE(write_answer(stream, answer_of_items(), true));
        EXPECT_EQ(outcome_of(stream.bytes), FRAME_OUTCOME::refused);
    }
    {
        MEMORY_STREAM stream;
        ANSWER answer;
        stream.bytes = bytes_ahead_of_answer(true) + bytes_ahead_of_answer(true);
        stream.bytes = stream.bytes.substr(0, header_size + 8 + 3) + stream.bytes;
        ASSERT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
        EXPECT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::refused);
    }
    // Those of a secret do not come this way, nor any that nobody has asked for.
    for (const ANSWER_FORM::KIND kind :
         {ANSWER_FORM::KIND::filled_in, ANSWER_FORM::KIND::number, ANSWER_FORM::KIND::ignored,
          ANSWER_FORM::KIND::chunks, ANSWER_FORM::KIND::text}) {
        EXPECT_EQ(outcome_of(bytes_ahead_of_answer(true), answer_of(kind)), FRAME_OUTCOME::refused);
    }
}

TEST(WorkerFrames, ChunksOfManyPortionsArrive) {
    ANSWER sent;
    sent.success = true;
    sent.chunks.resize(5'000'000);
    for (std::size_t at = 0; at < sent.chunks.size(); ++at) {
        sent.chunks[at] = static_cast<unsigned char>(at * 7 + at / 251);
    }
    MEMORY_STREAM stream;
    ASSERT_TRUE(write_answer(stream, sent));
    ANSWER answer;
    WORKER_EVENT event;
    ASSERT_EQ(read_from_worker(stream, answer_of(ANSWER_FORM::KIND::chunks), event, answer),
              FRAME_OUTCOME::whole);
    EXPECT_EQ(answer.chunks, sent.chunks);
}

TEST(WorkerFrames, LargeBytesAreNotCopiedOnTheirWay) {
    // Every part is handed to the stream where it is, and read straight to where it stays.
    class WATCHING_STREAM : public MEMORY_STREAM {
    public:
        bool write(const std::vector<FRAME_PART>& parts) override {
            for (const FRAME_PART& part : parts) {
                written.push_back(part.data);
            }
            return MEMORY_STREAM::write(parts);
        }
        bool read(void* buffer, std::size_t size) override {
            filled.push_back(buffer);
            return MEMORY_STREAM::read(buffer, size);
        }
        std::vector<const void*> written;
        std::vector<const void*> filled;
    };
    ANSWER sent;
    sent.success = true;
    sent.bytes = OWNED_BYTES(3'000'000);
    WATCHING_STREAM stream;
    ASSERT_TRUE(write_answer(stream, sent));
    EXPECT_EQ(stream.written.back(), sent.bytes.data());
    ANSWER answer;
    WORKER_EVENT event;
    ASSERT_EQ(read_from_worker(stream, answer_of(ANSWER_FORM::KIND::bytes), event, answer),
              FRAME_OUTCOME::whole);
    // Save for their beginning.
    constexpr std::size_t beginning = std::size_t{1} << 20;
    EXPECT_EQ(
        std::count(stream.filled.begin(), stream.filled.end(), answer.bytes.data() + beginning), 1);
    EXPECT_EQ(stream.largest_read, 3'000'000U - beginning);
}

TEST(WorkerFrames, TheBytesOfASecretAreOverwrittenWhereverTheyCame) {
    // Where they are read to, the beginning of many too.
    class WATCHED_STREAM : public MEMORY_STREAM {
    public:
        bool read(void* buffer, std::size_t size) override {
            filled.push_back(buffer);
            return MEMORY_STREAM::read(buffer, size);
        }
        std::vector<const void*> filled;
    };
    for (const std::size_t size : {std::size_t{32}, std::size_t{3'000'000}}) {
        for (const bool secret : {true, false}) {
            ANSWER sent;
            sent.success = true;
            sent.bytes = OWNED_BYTES(size);
            std::memset(sent.bytes.data(), secret_byte, size);
            WATCHED_STREAM stream;
            stream.filled.reserve(16);
            ASSERT_TRUE(write_answer(stream, sent));
            released_empty = 0;
            released_full = 0;
            watched = &stream.filled;
            {
                ANSWER answer;
                WORKER_EVENT event;
                const ANSWER_FORM form =
                    answer_of(secret ? ANSWER_FORM::KIND::filled_in : ANSWER_FORM::KIND::bytes);
                EXPECT_EQ(read_from_worker(stream, form, event, answer), FRAME_OUTCOME::whole);
                EXPECT_EQ(answer.bytes.data()[size - 1], secret_byte);
            }
            watched = nullptr;
            // Of many the rest is read behind the beginning of their memory, which is copied there.
            EXPECT_EQ(secret ? released_empty : released_full, 1) << size;
            EXPECT_EQ(secret ? released_full : released_empty, 0) << size;
        }
    }
}

TEST(WorkerFrames, ATruncatedFrameIsAnEnd) {
    const std::string bytes = bytes_of_answer();
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_EQ(outcome_of(bytes.substr(0, size)), FRAME_OUTCOME::ended) << size;
    }
    EXPECT_EQ(outcome_of(bytes), FRAME_OUTCOME::whole);
}

TEST(WorkerFrames, EveryBrokenByteIsDealtWith) {
    const std::string bytes = bytes_of_answer();
    std::size_t refused = 0;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        for (const char change : {'\x01', '\x80', '\xFF'}) {
            std::string broken = bytes;
            broken[at] = static_cast<char>(broken[at] ^ change);
            const FRAME_OUTCOME outcome = outcome_of(broken);
            refused += outcome == FRAME_OUTCOME::refused ? 1 : 0;
            // Of the mark, the version and what is unused nothing may differ.
            if (at < type_at || (at >= 12 && at < 16)) {
                EXPECT_EQ(outcome, FRAME_OUTCOME::refused) << at;
            }
        }
    }
    EXPECT_GT(refused, 50U);
}

TEST(WorkerFrames, AbsurdLengthsAreRefused) {
    for (const std::uint64_t size : {std::uint64_t{1} << 34, std::uint64_t{1} << 60,
                                     std::numeric_limits<std::uint64_t>::max()}) {
        std::string bytes = bytes_of_answer();
        put(bytes, record_size_at, size);
        EXPECT_EQ(outcome_of(bytes), FRAME_OUTCOME::refused) << size;
    }
    // The length of the module's name, behind the two flags.
    for (const std::uint64_t size : {std::uint64_t{1} << 32, std::uint64_t{1} << 60,
                                     std::numeric_limits<std::uint64_t>::max()}) {
        std::string bytes = bytes_of_answer();
        put(bytes, header_size + 2, size);
        EXPECT_EQ(outcome_of(bytes), FRAME_OUTCOME::refused) << size;
    }
}

TEST(WorkerFrames, WhatIsAnnouncedAndDoesNotComeTakesLittleMemory) {
    std::string bytes = bytes_of_answer();
    put(bytes, record_size_at, std::uint64_t{1} << 32);
    MEMORY_STREAM stream;
    ANSWER answer;
    EXPECT_EQ(outcome_of(bytes, request_of_everything().form, answer, stream),
              FRAME_OUTCOME::ended);
    EXPECT_LE(stream.largest_read, std::size_t{1} << 20);
}

TEST(WorkerFrames, ABlockBeyondFourGibibytesIsRefused) {
    std::string bytes = bytes_of_answer();
    const std::size_t record_size = bytes.size() - header_size - 3;
    put(bytes, header_size + record_size - 16, std::uint64_t{1} << 32);
    EXPECT_EQ(outcome_of(bytes), FRAME_OUTCOME::refused);
}

TEST(WorkerFrames, ARecordWithAByteTooManyIsRefused) {
    std::string bytes = bytes_of_answer();
    const std::size_t record_size = bytes.size() - header_size - 3;
    put(bytes, record_size_at, std::uint64_t{record_size + 1});
    EXPECT_EQ(outcome_of(bytes), FRAME_OUTCOME::refused);
}

TEST(WorkerFrames, FramesOfTheOtherDirectionAndOfNoTypeAreRefused) {
    const std::string answer_bytes = bytes_of_answer();
    for (const std::uint32_t type : {0U, static_cast<std::uint32_t>(FRAME_TYPE::call),
                                     static_cast<std::uint32_t>(FRAME_TYPE::go_on),
                                     static_cast<std::uint32_t>(FRAME_TYPE::run_answer) + 1}) {
        std::string bytes = answer_bytes;
        put(bytes, type_at, type);
        EXPECT_EQ(outcome_of(bytes), FRAME_OUTCOME::refused) << type;
    }
    MEMORY_STREAM stream;
    stream.bytes = answer_bytes;
    WORKER_EVENT event;
    RECEIVED_REQUEST request;
    EXPECT_EQ(read_from_host(stream, event, request), FRAME_OUTCOME::refused);
}

TEST(WorkerFrames, AnAnswerWithoutWhatTheFormSaysIsRefused) {
    MEMORY_STREAM stream;
    ANSWER answer = answer_of_items();
    answer.numbers.clear();
    ASSERT_TRUE(write_answer(stream, answer));
    EXPECT_EQ(outcome_of(stream.bytes), FRAME_OUTCOME::refused);
    // A failed call has no numbers.
    answer.success = false;
    stream.bytes.clear();
    ASSERT_TRUE(write_answer(stream, answer));
    EXPECT_EQ(outcome_of(stream.bytes), FRAME_OUTCOME::whole);
    // Bytes where none are due.
    EXPECT_EQ(outcome_of(stream.bytes, answer_of(ANSWER_FORM::KIND::text)), FRAME_OUTCOME::refused);
}

}  // namespace
