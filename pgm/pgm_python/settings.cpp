#include "pgm/pgm_python/settings.h"

#include <array>
#include <cmath>
#include <locale>
#include <mutex>
#include <optional>
#include <sstream>

#include "pgm/pgm_common/environment.h"
#include "pgm/pgm_python/messages.h"

namespace {

// What the host chose.
struct CHOICES {
    std::mutex mutex;
    std::optional<PGM_PYTHON_CALLS> calls;
    std::optional<double> call_timeout;
    std::optional<std::string> worker;
    std::optional<PGM_PYTHON_REASONS> reasons;
    std::optional<bool> traceback;
};

CHOICES& choices() {
    static CHOICES the_choices;
    return the_choices;
}

template <typename VALUE>
void choose(std::optional<VALUE> CHOICES::*choice, const VALUE& value) {
    const std::lock_guard<std::mutex> lock(choices().mutex);
    choices().*choice = value;
}

template <typename VALUE>
struct NAMED {
    const char* name;
    VALUE value;
};

constexpr std::array<NAMED<PGM_PYTHON_CALLS>, 3> named_calls = {{
    {"fresh", PGM_PYTHON_CALLS::fresh},
    {"kept", PGM_PYTHON_CALLS::kept},
    {"worker", PGM_PYTHON_CALLS::worker},
}};
constexpr std::array<NAMED<PGM_PYTHON_REASONS>, 2> named_reasons = {{
    {"both", PGM_PYTHON_REASONS::both},
    {"announced", PGM_PYTHON_REASONS::announced},
}};
constexpr std::array<NAMED<bool>, 2> named_flags = {{{"0", false}, {"1", true}}};

// Stores the host's choice, else the value that the text of a variable names; an empty text leaves
// it as it is. False when the text is none of `values`.
template <typename VALUE, std::size_t count>
bool store(const std::optional<VALUE>& choice, const std::string& text,
           const std::array<NAMED<VALUE>, count>& values, VALUE& stored) {
    if (choice) {
        stored = *choice;
        return true;
    }
    for (const NAMED<VALUE>& value : values) {
        if (text == value.name) {
            stored = value.value;
            return true;
        }
    }
    return text.empty();
}

double timeout_from_environment() {
    const std::string text = environment_value("PGM_PYTHON_CALL_TIMEOUT");
    if (text.empty()) {
        return 0;
    }
    // In the same form whatever the host's locale is.
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    double seconds = 0;
    if (!(stream >> seconds) || !stream.eof() || !std::isfinite(seconds) || seconds < 0) {
        fail(2003, "PGM_PYTHON_CALL_TIMEOUT must be a number of seconds, 0 or more, not %s", text);
    }
    return seconds;
}

}  // namespace

SETTINGS settings_in_force() {
    CHOICES& chosen = choices();
    std::unique_lock<std::mutex> lock(chosen.mutex);
    const std::optional<PGM_PYTHON_CALLS> calls = chosen.calls;
    const std::optional<double> call_timeout = chosen.call_timeout;
    const std::optional<std::string> worker = chosen.worker;
    const std::optional<PGM_PYTHON_REASONS> reasons = chosen.reasons;
    const std::optional<bool> traceback = chosen.traceback;
    lock.unlock();  // a report may run code of the host's

    SETTINGS settings;
    const std::string calls_text = environment_value("PGM_PYTHON_CALLS");
    if (!store(calls, calls_text, named_calls, settings.calls)) {
        fail(2001, "PGM_PYTHON_CALLS must be fresh, kept or worker, not %s", calls_text);
    }
    const std::string reasons_text = environment_value("PGM_PYTHON_REASONS");
    if (!store(reasons, reasons_text, named_reasons, settings.reasons)) {
        fail(2002, "PGM_PYTHON_REASONS must be both or announced, not %s", reasons_text);
    }
    settings.call_timeout = call_timeout ? *call_timeout : timeout_from_environment();
    const std::string traceback_text = environment_value("PGM_PYTHON_TRACEBACK");
    if (!store(traceback, traceback_text, named_flags, settings.traceback)) {
        fail(2004, "PGM_PYTHON_TRACEBACK must be 0 or 1, not %s", traceback_text);
    }
    settings.worker = worker ? *worker : environment_value("PGM_PYTHON_WORKER");
    return settings;
}

void PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS kind) {
    choose(&CHOICES::calls, kind);
}

void PGM_PYTHON_SETTINGS::set_call_timeout(double seconds) {
    choose(&CHOICES::call_timeout, std::isfinite(seconds) && seconds > 0 ? seconds : 0.0);
}

void PGM_PYTHON_SETTINGS::set_worker(const std::string& program) {
    choose(&CHOICES::worker, program);
}

void PGM_PYTHON_SETTINGS::set_reasons(PGM_PYTHON_REASONS channels) {
    choose(&CHOICES::reasons, channels);
}

void PGM_PYTHON_SETTINGS::set_traceback(bool printed) {
    choose(&CHOICES::traceback, printed);
}

void PGM_PYTHON_SETTINGS::use_environment() {
    CHOICES& chosen = choices();
    const std::lock_guard<std::mutex> lock(chosen.mutex);
    chosen.calls.reset();
    chosen.call_timeout.reset();
    chosen.worker.reset();
    chosen.reasons.reset();
    chosen.traceback.reset();
}
