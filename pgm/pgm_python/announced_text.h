// What a client of the announced channel says: the channel's word and a line feed, then its text.

#ifndef PGM_PGM_PYTHON_ANNOUNCED_TEXT_H
#define PGM_PGM_PYTHON_ANNOUNCED_TEXT_H

#include <cstddef>
#include <string>

// How much of a text is taken; the rest of a longer one is lost.
constexpr std::size_t announced_text_limit = 2048;

// What has come from one client, in whatever chunks. Touches no socket; one thread at a time.
class ANNOUNCED_TEXT {
public:
    enum class STATE {
        // The word has not come whole.
        word_awaited,
        // The word was right; more of the text may come.
        text_awaited,
        // The text has as many bytes as are taken.
        complete,
        // What came first was not the word and a line feed. This is told only when as many bytes
        // have come as these have, so that the word cannot be guessed byte by byte.
        refused,
    };

    // `word` must not be empty.
    explicit ANNOUNCED_TEXT(std::string word);

    // How many more bytes are wanted; 0 once the text is complete or the client refused.
    std::size_t wanted() const;

    // Takes the next chunk, of which no more is looked at than is wanted.
    STATE take(const char* bytes, std::size_t size);

    STATE state() const { return m_state; }

    // The text as far as it has come, as it is; empty before the word.
    const std::string& text() const { return m_text; }

private:
    void compare_word();

    std::string m_word;  // with its line feed
    std::string m_said;  // up to the length of the word
    std::string m_text;
    STATE m_state = STATE::word_awaited;
};

#endif
