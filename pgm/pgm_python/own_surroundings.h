// The surroundings of a call whose interpreter is in this process.

#ifndef PGM_PGM_PYTHON_OWN_SURROUNDINGS_H
#define PGM_PGM_PYTHON_OWN_SURROUNDINGS_H

#include <string>

#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/call_completion.h"
#include "pgm/pgm_python/call_road.h"

class OWN_SURROUNDINGS : public ROAD_SURROUNDINGS {
public:
    // The listener stays the caller's.
    explicit OWN_SURROUNDINGS(BACK_CHANNEL& back_channel) : m_back_channel(back_channel) {}

    std::string start_back_channel() override {
        m_back_channel.start();
        return m_back_channel.announced();
    }
    void complete(bool success, const std::string& function, const std::string& file) override {
        complete_python_call(success, m_back_channel, function, file);
    }

private:
    BACK_CHANNEL& m_back_channel;
};

#endif
