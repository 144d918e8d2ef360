#include "pgm/pgm_python/bridge_call.h"

#include <utility>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/back_channel.h"
#include "pgm/pgm_python/call_completion.h"
#include "pgm/pgm_python/messages.h"
#include "pgm/pgm_python/own_surroundings.h"
#include "pgm/pgm_python/worker_call.h"
#include "zel/zel_fio/zel_fio.h"
#include "zel/zel_mem/zel_mem.h"

std::string common_script(const char* format) {
    return MEM_DETAIL::stl_raw_sprintf(format, PGM_COMMON::pgm_get_common_programmer().c_str());
}

BRIDGE_CALL::BRIDGE_CALL(const BRIDGE& bridge, std::string script, std::string function)
    : m_request(bridge) {
    m_request.settings = settings_in_force();
    m_request.script = std::move(script);
    m_request.function = std::move(function);
}

void BRIDGE_CALL::set_script_arguments(std::vector<std::string> arguments) {
    m_request.script_arguments = std::move(arguments);
}

void BRIDGE_CALL::expect_tuple(const CHECK& made) {
    m_request.tuple_made = made;
}

void BRIDGE_CALL::add_argument(const ARGUMENT& argument, const CHECK& made, const CHECK& placed) {
    m_request.rows.push_back({argument, made, placed});
}

ANSWER BRIDGE_CALL::run(const ANSWER_FORM& form) {
    const bool early = m_request.bridge.back_channel == BACK_CHANNEL_PLACEMENT::early;
    m_request.form = form;
    BACK_CHANNEL back_channel(m_request.settings.reasons);
    if (early) {
        back_channel.start();
        m_request.announced_channel = back_channel.announced();
    }
    if (m_request.bridge.checks_script) {
        check_script();
    }
    OWN_SURROUNDINGS surroundings(back_channel);
    ANSWER answer = m_request.settings.calls == PGM_PYTHON_CALLS::worker
                        ? walk_road_in_worker(m_request, surroundings)
                        : walk_road(m_request, surroundings);
    if (early) {
        complete_python_call(answer.success, back_channel, m_request.function, answer.module);
    }
    return answer;
}

void BRIDGE_CALL::check_script() const {
    if (!FIO_FILE_SYSTEM::exists(m_request.script)) {
        fail(m_request.bridge.line, "Python script %s doest not exist", m_request.script);
    }
    require(!m_request.function.empty(),
            {"Python function must be specified", m_request.bridge.line});
}
