#include "pgm/pgm_python/announced_text.h"

#include <algorithm>
#include <utility>

ANNOUNCED_TEXT::ANNOUNCED_TEXT(std::string word) : m_word(std::move(word) + "\n") {}

std::size_t ANNOUNCED_TEXT::wanted() const {
    switch (m_state) {
        case STATE::word_awaited:
            return m_word.size() - m_said.size() + announced_text_limit;
        case STATE::text_awaited:
            return announced_text_limit - m_text.size();
        default:
            return 0;
    }
}

ANNOUNCED_TEXT::STATE ANNOUNCED_TEXT::take(const char* bytes, std::size_t size) {
    if (m_state == STATE::word_awaited) {
        const std::size_t of_word = std::min(size, m_word.size() - m_said.size());
        m_said.append(bytes, of_word);
        bytes += of_word;
        size -= of_word;
        compare_word();
    }
    if (m_state == STATE::text_awaited) {
        m_text.append(bytes, std::min(size, announced_text_limit - m_text.size()));
        if (m_text.size() == announced_text_limit) {
            m_state = STATE::complete;
        }
    }
    return m_state;
}

// Takes the same time wherever the difference is.
void ANNOUNCED_TEXT::compare_word() {
    if (m_said.size() < m_word.size()) {
        return;
    }
    unsigned int difference = 0;
    for (std::size_t index = 0; index < m_word.size(); ++index) {
        difference |= static_cast<unsigned char>(m_said[index]) ^
                      static_cast<unsigned int>(static_cast<unsigned char>(m_word[index]));
    }
    m_state = difference == 0 ? STATE::text_awaited : STATE::refused;
}
