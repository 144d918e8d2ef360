#include "pgm/pgm_python/worker_frames.h"

#include <algorithm>
#include <cereal/cereal.hpp>
#include <cereal/types/map.hpp>
#include <cereal/types/string.hpp>
#include <cereal/types/vector.hpp>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include "zel/zel_mem/zel_mem.h"

namespace {

// "PGMW", and the number of this form of frames.
constexpr std::uint32_t frame_mark = 0x57'4D'47'50;
constexpr std::uint32_t frame_version = 1;

struct FRAME_HEADER {
    std::uint32_t mark = frame_mark;
    std::uint32_t version = frame_version;
    std::uint32_t type = 0;
    std::uint32_t unused = 0;
    std::uint64_t record_size = 0;
};

// What a record may hold at most: texts of 4 GiB, where there are such.
constexpr std::uint64_t record_limit = std::uint64_t{1} << 33;

// How much memory is taken at once for bytes that have not come yet.
constexpr std::size_t portion = std::size_t{1} << 20;

// A buffer that is overwritten before its memory is released, however it grows.
template <typename VALUE>
struct OVERWRITING_ALLOCATOR {
    typedef VALUE value_type;
    OVERWRITING_ALLOCATOR() = default;
    template <typename OTHER>
    explicit OVERWRITING_ALLOCATOR(const OVERWRITING_ALLOCATOR<OTHER>& /*other*/) {}
    VALUE* allocate(std::size_t count) { return std::allocator<VALUE>().allocate(count); }
    void deallocate(VALUE* memory, std::size_t count) {
        MEM_DETAIL::overwrite(memory, count * sizeof(VALUE));
        std::allocator<VALUE>().deallocate(memory, count);
    }
    bool operator==(const OVERWRITING_ALLOCATOR& /*other*/) const { return true; }
    bool operator!=(const OVERWRITING_ALLOCATOR& /*other*/) const { return false; }
};
typedef std::vector<char, OVERWRITING_ALLOCATOR<char>> RECORD;

}  // namespace

// The archives, between the library that serialises and a record with its blocks.
class RECORD_WRITER : public cereal::OutputArchive<RECORD_WRITER, cereal::AllowEmptyClassElision> {
public:
    RECORD_WRITER() : cereal::OutputArchive<RECORD_WRITER, cereal::AllowEmptyClassElision>(this) {}

    void add(const void* bytes, std::size_t size) {
        const char* const begin = static_cast<const char*>(bytes);
        m_record.insert(m_record.end(), begin, begin + size);
    }

    // Announces a block, which must live until the frame has been written.
    void add_block(const void* bytes, std::size_t size) {
        (*this)(static_cast<std::uint64_t>(size));
        if (size > 0) {
            m_blocks.push_back({bytes, size});
        }
    }

    bool write(FRAME_STREAM& stream, FRAME_TYPE type) const {
        FRAME_HEADER header;
        header.type = static_cast<std::uint32_t>(type);
        header.record_size = m_record.size();
        std::vector<FRAME_PART> parts = {{&header, sizeof header},
                                         {m_record.data(), m_record.size()}};
        parts.insert(parts.end(), m_blocks.begin(), m_blocks.end());
        return stream.write(parts);
    }

private:
    RECORD m_record;
    std::vector<FRAME_PART> m_blocks;
};

class RECORD_READER : public cereal::InputArchive<RECORD_READER, cereal::AllowEmptyClassElision> {
public:
    RECORD_READER(FRAME_STREAM& stream, const RECORD& record)
        : cereal::InputArchive<RECORD_READER, cereal::AllowEmptyClassElision>(this),
          m_stream(stream),
          m_at(record.data()),
          m_end(record.data() + record.size()) {}

    std::size_t left() const { return static_cast<std::size_t>(m_end - m_at); }

    void take(void* bytes, std::size_t size) {
        require_that(size <= left());
        if (size > 0) {  // nothing may be nowhere
            std::memcpy(bytes, m_at, size);
            m_at += size;
        }
    }

    template <typename VALUE>
    VALUE value() {
        VALUE taken = VALUE();
        (*this)(taken);
        return taken;
    }

    std::size_t block_size() {
        const std::uint64_t size = value<std::uint64_t>();
        require_that(size <= 0xFFFFFFFFU);
        return static_cast<std::size_t>(size);
    }

    // Reads a block that the record announced, into memory that it can be read straight into. The
    // record must have been taken whole.
    void read_block(void* bytes, std::size_t size) const {
        if (!m_stream.read(bytes, size)) {
            throw ENDED();
        }
    }

    // What is thrown when the stream ends, and when a record is not what it should be.
    struct ENDED {};
    struct REFUSED {};
    static void require_that(bool condition) {
        if (!condition) {
            throw REFUSED();
        }
    }

private:
    FRAME_STREAM& m_stream;
    const char* m_at;
    const char* m_end;
};

// What the library that serialises calls by their names.
template <typename NUMBER>
std::enable_if_t<std::is_arithmetic<NUMBER>::value> CEREAL_SAVE_FUNCTION_NAME(
    RECORD_WRITER& writer, const NUMBER& number) {
    writer.add(&number, sizeof number);
}

template <typename NUMBER>
std::enable_if_t<std::is_arithmetic<NUMBER>::value && !std::is_same<NUMBER, bool>::value>
CEREAL_LOAD_FUNCTION_NAME(RECORD_READER& reader, NUMBER& number) {
    reader.take(&number, sizeof number);
}

template <typename FLAG>
std::enable_if_t<std::is_same<FLAG, bool>::value> CEREAL_LOAD_FUNCTION_NAME(RECORD_READER& reader,
                                                                            FLAG& flag) {
    unsigned char byte = 0;
    reader.take(&byte, 1);
    RECORD_READER::require_that(byte <= 1);
    flag = byte == 1;
}

template <typename SIZE>
void CEREAL_SAVE_FUNCTION_NAME(RECORD_WRITER& writer, const cereal::SizeTag<SIZE>& tag) {
    writer(static_cast<std::uint64_t>(tag.size));
}

// Each thing that is counted takes a byte at least.
template <typename SIZE>
void CEREAL_LOAD_FUNCTION_NAME(RECORD_READER& reader, cereal::SizeTag<SIZE>& tag) {
    const std::uint64_t size = reader.value<std::uint64_t>();
    RECORD_READER::require_that(size <= reader.left());
    tag.size = static_cast<std::size_t>(size);
}

template <typename DATA>
void CEREAL_SAVE_FUNCTION_NAME(RECORD_WRITER& writer, const cereal::BinaryData<DATA>& data) {
    writer.add(data.data, static_cast<std::size_t>(data.size));
}

template <typename DATA>
void CEREAL_LOAD_FUNCTION_NAME(RECORD_READER& reader, cereal::BinaryData<DATA>& data) {
    reader.take(data.data, static_cast<std::size_t>(data.size));
}

// The items of a map, which the library names.
template <typename VALUE>
void CEREAL_SAVE_FUNCTION_NAME(RECORD_WRITER& writer, const cereal::NameValuePair<VALUE>& pair) {
    writer(pair.value);
}

template <typename VALUE>
void CEREAL_LOAD_FUNCTION_NAME(RECORD_READER& reader, cereal::NameValuePair<VALUE>& pair) {
    reader(pair.value);
}

// cppcheck-suppress unknownMacro
CEREAL_REGISTER_ARCHIVE(RECORD_WRITER)
CEREAL_REGISTER_ARCHIVE(RECORD_READER)
CEREAL_SETUP_ARCHIVE_TRAITS(RECORD_READER, RECORD_WRITER)

template <typename ARCHIVE>
void serialize(ARCHIVE& archive, SUITE_FOLDERS& folders) {
    archive(folders.common, folders.unshipped, folders.bin);
}

template <typename ARCHIVE>
void serialize(ARCHIVE& archive, RUN_REQUEST& request) {
    archive(request.is_script, request.command, request.arguments, request.announced_channel);
}

template <typename ARCHIVE>
void serialize(ARCHIVE& archive, WORKER_EVENT& event) {
    archive(event.number, event.flag, event.text, event.module, event.source);
}

namespace {

void save_text(RECORD_WRITER& writer, const char* text) {
    writer(text != nullptr, std::string(text == nullptr ? "" : text));
}

void save_check(RECORD_WRITER& writer, const CHECK& check) {
    save_text(writer, check.text);
    writer(check.line);
}

template <typename KIND>
void save_kind(RECORD_WRITER& writer, KIND kind) {
    writer(static_cast<std::uint32_t>(kind));
}

void save_bridge(RECORD_WRITER& writer, const BRIDGE& bridge) {
    writer(bridge.line);
    save_kind(writer, bridge.back_channel);
    save_text(writer, bridge.module_name_check);
    save_text(writer, bridge.lookup_failure);
    save_text(writer, bridge.call_failure);
    writer(bridge.posts_call_failure, bridge.checks_script, bridge.sets_argument_vector,
           bridge.sets_suite_folders, bridge.builds_arguments_first, bridge.places_one_by_one,
           bridge.keeps_result);
}

void save_argument(RECORD_WRITER& writer, const ARGUMENT& argument) {
    save_kind(writer, argument.kind);
    switch (argument.kind) {
        case ARGUMENT::KIND::text:
            writer(*argument.text);
            break;
        case ARGUMENT::KIND::number:
            writer(argument.number);
            break;
        case ARGUMENT::KIND::bytes:
        case ARGUMENT::KIND::hex:
        case ARGUMENT::KIND::filled_in:
            writer(argument.bytes != nullptr);
            if (argument.bytes != nullptr) {
                writer.add_block(argument.bytes, argument.size);
            } else {
                writer(static_cast<std::uint64_t>(argument.size));
            }
            break;
        case ARGUMENT::KIND::flag:
            writer(argument.flag);
            break;
        case ARGUMENT::KIND::map:
            writer(*argument.map);
            break;
    }
}

void save_form(RECORD_WRITER& writer, const ANSWER_FORM& form) {
    save_kind(writer, form.kind);
    save_check(writer, form.check);
    save_check(writer, form.second_check);
    writer(static_cast<std::uint64_t>(form.item_count));
    for (const ANSWER_FORM::ITEM& item : form.items) {
        save_kind(writer, item.kind);
        save_check(writer, item.there);
        writer(item.fails_the_call);
    }
}

void save_settings(RECORD_WRITER& writer, const SETTINGS& settings) {
    save_kind(writer, settings.reasons);
    writer(settings.traceback);
}

// The types that each side may send.
bool comes_from_host(FRAME_TYPE type) {
    return type >= FRAME_TYPE::call && type <= FRAME_TYPE::go_on;
}

bool comes_from_worker(FRAME_TYPE type) {
    return type >= FRAME_TYPE::taken && type <= FRAME_TYPE::run_answer;
}

// Reads a frame as far as the end of its record.
FRAME_TYPE read_record(FRAME_STREAM& stream, bool (*may_come)(FRAME_TYPE), RECORD& record) {
    FRAME_HEADER header;
    if (!stream.read(&header, sizeof header)) {
        throw RECORD_READER::ENDED();
    }
    const FRAME_TYPE type = static_cast<FRAME_TYPE>(header.type);
    RECORD_READER::require_that(header.mark == frame_mark && header.version == frame_version &&
                                header.unused == 0 && may_come(type) &&
                                header.record_size <= record_limit);
    for (std::uint64_t left = header.record_size; left > 0;) {
        const std::size_t count = static_cast<std::size_t>(
            std::min<std::uint64_t>(left, std::max(portion, record.size())));
        record.resize(record.size() + count);
        if (!stream.read(record.data() + record.size() - count, count)) {
            throw RECORD_READER::ENDED();
        }
        left -= count;
    }
    return type;
}

// Runs a reader, whose exceptions tell how it went.
template <typename READER>
FRAME_OUTCOME outcome_of(const READER& read) {
    try {
        read();
        return FRAME_OUTCOME::whole;
    } catch (const RECORD_READER::ENDED&) {
        return FRAME_OUTCOME::ended;
    } catch (const RECORD_READER::REFUSED&) {
        return FRAME_OUTCOME::refused;
    } catch (const cereal::Exception&) {
        return FRAME_OUTCOME::refused;
    } catch (const std::length_error&) {
        return FRAME_OUTCOME::refused;
    } catch (const std::bad_alloc&) {
        return FRAME_OUTCOME::refused;
    }
}

void take_event(RECORD_READER& reader, WORKER_EVENT& event) {
    reader(event);
    RECORD_READER::require_that(reader.left() == 0);
}

// How many numbers an answer to a form holds.
std::size_t numbers_in(const ANSWER_FORM& form) {
    if (form.kind == ANSWER_FORM::KIND::items) {
        return static_cast<std::size_t>(std::count_if(
            form.items.begin(), form.items.begin() + static_cast<std::ptrdiff_t>(form.item_count),
            [](const ANSWER_FORM::ITEM& item) { return item.kind == ANSWER_FORM::KIND::number; }));
    }
    return form.kind == ANSWER_FORM::KIND::number ? 1 : 0;
}

// Blocks are read in portions, so that one that is announced and does not come costs little.
void read_chunks(const RECORD_READER& reader, std::size_t size,
                 std::vector<unsigned char>& chunks) {
    while (size > 0) {
        const std::size_t count = std::min(size, std::max(portion, chunks.size()));
        chunks.resize(chunks.size() + count);
        reader.read_block(chunks.data() + chunks.size() - count, count);
        size -= count;
    }
}

// The memory of the whole is taken when a beginning has come.
OWNED_BYTES read_bytes(const RECORD_READER& reader, std::size_t size, bool secret) {
    OWNED_BYTES beginning = OWNED_BYTES::unfilled(std::min(size, portion), secret);
    reader.read_block(beginning.data(), beginning.size());
    if (size <= portion) {
        return beginning;
    }
    OWNED_BYTES bytes = OWNED_BYTES::unfilled(size, secret);
    std::memcpy(bytes.data(), beginning.data(), portion);
    reader.read_block(bytes.data() + portion, size - portion);
    return bytes;
}

bool holds_bytes(const ANSWER_FORM& form) {
    return form.kind == ANSWER_FORM::KIND::bytes || form.kind == ANSWER_FORM::KIND::items ||
           form.kind == ANSWER_FORM::KIND::filled_in;
}

void take_answer_bytes(RECORD_READER& reader, const ANSWER_FORM& form, OWNED_BYTES& bytes) {
    const std::size_t size = reader.block_size();
    RECORD_READER::require_that(reader.left() == 0 && holds_bytes(form) &&
                                form.kind != ANSWER_FORM::KIND::filled_in &&
                                bytes.data() == nullptr);
    bytes = read_bytes(reader, size, false);
}

// `before` is what has come of its bytes.
void take_answer(RECORD_READER& reader, const ANSWER_FORM& form, OWNED_BYTES before,
                 ANSWER& answer) {
    reader(answer.success, answer.made, answer.module, answer.text);
    const std::vector<std::uint32_t> numbers = reader.value<std::vector<std::uint32_t>>();
    answer.numbers.assign(numbers.begin(), numbers.end());
    const bool came_before = reader.value<bool>();
    const bool are_bytes_there = reader.value<bool>();
    const std::size_t bytes_size = reader.block_size();
    const std::size_t chunks_size = reader.block_size();
    RECORD_READER::require_that(
        reader.left() == 0 && (!answer.success || answer.numbers.size() == numbers_in(form)) &&
        came_before == (before.data() != nullptr) && !(came_before && are_bytes_there) &&
        (holds_bytes(form) || !are_bytes_there) && (are_bytes_there || bytes_size == 0) &&
        (form.kind == ANSWER_FORM::KIND::chunks || chunks_size == 0));
    answer.bytes = std::move(before);
    if (are_bytes_there) {
        answer.bytes = read_bytes(reader, bytes_size, form.kind == ANSWER_FORM::KIND::filled_in);
    }
    read_chunks(reader, chunks_size, answer.chunks);
}

}  // namespace

// Takes a request out of its record. What the request refers to is kept beside it.
class REQUEST_READER {
public:
    REQUEST_READER(RECORD_READER& reader, RECEIVED_REQUEST& request)
        : m_reader(reader), m_request(request) {}

    void take_call() {
        m_reader(m_request.m_folders);
        m_request.m_call = std::make_unique<CALL_REQUEST>(BRIDGE{0});
        CALL_REQUEST& call = *m_request.m_call;
        take_bridge(call.bridge);
        m_reader(call.script, call.function, call.script_arguments);
        call.tuple_made = check();
        const std::uint64_t rows = m_reader.value<std::uint64_t>();
        RECORD_READER::require_that(rows <= m_reader.left());
        for (std::uint64_t row = 0; row < rows; ++row) {
            const ARGUMENT taken = argument();
            const CHECK made = check();
            call.rows.push_back({taken, made, check()});
        }
        take_form(call.form);
        call.settings.reasons = kind(PGM_PYTHON_REASONS::announced);
        call.settings.traceback = m_reader.value<bool>();
        m_reader(call.announced_channel);
        RECORD_READER::require_that(m_reader.left() == 0);
        for (const std::size_t row : m_rows_with_blocks) {
            ARGUMENT& argument = call.rows[row].argument;
            m_request.m_bytes.push_back(read_bytes(m_reader, argument.size, false));
            argument.bytes = m_request.m_bytes.back().data();
        }
    }

    void take_run() {
        m_reader(m_request.m_folders, m_request.m_run);
        RECORD_READER::require_that(m_reader.left() == 0 && (!m_request.m_run.is_script ||
                                                             !m_request.m_run.arguments.empty()));
    }

private:
    const char* text() {
        const bool is_there = m_reader.value<bool>();
        m_request.m_texts.push_back(m_reader.value<std::string>());
        return is_there ? m_request.m_texts.back().c_str() : nullptr;
    }

    CHECK check() {
        CHECK taken;
        taken.text = text();
        taken.line = m_reader.value<int>();
        return taken;
    }

    template <typename KIND>
    KIND kind(KIND last) {
        const std::uint32_t number = m_reader.value<std::uint32_t>();
        RECORD_READER::require_that(number <= static_cast<std::uint32_t>(last));
        return static_cast<KIND>(number);
    }

    void take_bridge(BRIDGE& bridge) {
        m_reader(bridge.line);
        bridge.back_channel = kind(BACK_CHANNEL_PLACEMENT::late);
        bridge.module_name_check = text();
        bridge.lookup_failure = text();
        bridge.call_failure = text();
        m_reader(bridge.posts_call_failure, bridge.checks_script, bridge.sets_argument_vector,
                 bridge.sets_suite_folders, bridge.builds_arguments_first, bridge.places_one_by_one,
                 bridge.keeps_result);
    }

    ARGUMENT argument() {
        ARGUMENT taken;
        taken.kind = kind(ARGUMENT::KIND::filled_in);
        switch (taken.kind) {
            case ARGUMENT::KIND::text:
                m_request.m_texts.push_back(m_reader.value<std::string>());
                taken.text = &m_request.m_texts.back();
                break;
            case ARGUMENT::KIND::number:
                m_reader(taken.number);
                break;
            case ARGUMENT::KIND::bytes:
            case ARGUMENT::KIND::hex:
            case ARGUMENT::KIND::filled_in:
                take_bytes(taken);
                break;
            case ARGUMENT::KIND::flag:
                m_reader(taken.flag);
                break;
            case ARGUMENT::KIND::map:
                m_request.m_maps.push_back(m_reader.value<std::map<std::string, std::string>>());
                taken.map = &m_request.m_maps.back();
                break;
        }
        return taken;
    }

    void take_bytes(ARGUMENT& taken) {
        const bool are_there = m_reader.value<bool>();
        taken.size = m_reader.block_size();
        if (are_there) {
            m_rows_with_blocks.push_back(m_request.m_call->rows.size());
        }
    }

    void take_form(ANSWER_FORM& form) {
        form.kind = kind(ANSWER_FORM::KIND::filled_in);
        form.check = check();
        form.second_check = check();
        const std::uint64_t count = m_reader.value<std::uint64_t>();
        RECORD_READER::require_that(count <= form.items.size());
        form.item_count = static_cast<std::size_t>(count);
        for (ANSWER_FORM::ITEM& item : form.items) {
            item.kind = kind(ANSWER_FORM::KIND::filled_in);
            item.there = check();
            item.fails_the_call = m_reader.value<bool>();
        }
    }

    RECORD_READER& m_reader;
    RECEIVED_REQUEST& m_request;
    // The rows whose bytes follow the record, in this order.
    std::vector<std::size_t> m_rows_with_blocks;
};

bool write_call(FRAME_STREAM& stream, const CALL_REQUEST& request, const SUITE_FOLDERS& folders) {
    RECORD_WRITER writer;
    writer(folders);
    save_bridge(writer, request.bridge);
    writer(request.script, request.function, request.script_arguments);
    save_check(writer, request.tuple_made);
    writer(static_cast<std::uint64_t>(request.rows.size()));
    for (const ARGUMENT_ROW& row : request.rows) {
        save_argument(writer, row.argument);
        save_check(writer, row.made);
        save_check(writer, row.placed);
    }
    save_form(writer, request.form);
    save_settings(writer, request.settings);
    writer(request.announced_channel);
    return writer.write(stream, FRAME_TYPE::call);
}

bool write_run(FRAME_STREAM& stream, const RUN_REQUEST& request, const SUITE_FOLDERS& folders) {
    RECORD_WRITER writer;
    writer(folders, request);
    return writer.write(stream, FRAME_TYPE::run);
}

bool write_event(FRAME_STREAM& stream, const WORKER_EVENT& event) {
    RECORD_WRITER writer;
    writer(event);
    return writer.write(stream, event.type);
}

bool write_answer_bytes(FRAME_STREAM& stream, const unsigned char* bytes, std::size_t size) {
    RECORD_WRITER writer;
    writer.add_block(bytes, size);
    return writer.write(stream, FRAME_TYPE::answer_bytes);
}

bool write_answer(FRAME_STREAM& stream, const ANSWER& answer, bool bytes_were_sent) {
    RECORD_WRITER writer;
    writer(answer.success, answer.made, answer.module, answer.text);
    writer(std::vector<std::uint32_t>(answer.numbers.begin(), answer.numbers.end()));
    writer(bytes_were_sent);
    writer(!bytes_were_sent && answer.bytes.data() != nullptr);
    writer.add_block(answer.bytes.data(), bytes_were_sent ? 0 : answer.bytes.size());
    writer.add_block(answer.chunks.data(), answer.chunks.size());
    return writer.write(stream, FRAME_TYPE::answer);
}

FRAME_OUTCOME read_from_host(FRAME_STREAM& stream, WORKER_EVENT& event, RECEIVED_REQUEST& request) {
    return outcome_of([&] {
        RECORD record;
        const FRAME_TYPE type = read_record(stream, comes_from_host, record);
        RECORD_READER reader(stream, record);
        if (type == FRAME_TYPE::call) {
            REQUEST_READER(reader, request).take_call();
        } else if (type == FRAME_TYPE::run) {
            REQUEST_READER(reader, request).take_run();
        } else {
            take_event(reader, event);
        }
        event.type = type;
    });
}

FRAME_OUTCOME read_from_worker(FRAME_STREAM& stream, const ANSWER_FORM& form, WORKER_EVENT& event,
                               ANSWER& answer) {
    return outcome_of([&] {
        RECORD record;
        const FRAME_TYPE type = read_record(stream, comes_from_worker, record);
        RECORD_READER reader(stream, record);
        if (type == FRAME_TYPE::answer) {
            ANSWER taken;
            take_answer(reader, form, std::move(answer.bytes), taken);
            answer = std::move(taken);
        } else if (type == FRAME_TYPE::answer_bytes) {
            take_answer_bytes(reader, form, answer.bytes);
        } else {
            take_event(reader, event);
        }
        event.type = type;
    });
}
