#include "tests/soak/soak_readings.h"

#include <algorithm>
#include <cstdio>

#include "tests/support.h"
#include "zel/zel_mem/zel_mem.h"
#include "zel/zel_py/py_reference.h"

namespace {

constexpr double mebibyte = 1024 * 1024;

// The margins. What counts whole things must not rise at all: half of one is for the median of two
// readings. References are left behind in small numbers by what only failing sessions do (the bare
// ones all succeed) and by every 64th session before Python 3.9, memory by the allocators'
// fragments.
struct ROW {
    const char* name;
    double unit;
    double margin;
};
constexpr std::array<ROW, READING::quantities> rows = {{
    {"memory/MiB", mebibyte, 4 * mebibyte},
    {"handles", 1, 0.5},
    {"threads", 1, 0.5},
    {"sockets", 1, 0.5},
    {"True", 1, 40},
    {"False", 1, 40},
    {"None", 1, 40},
}};

#if PY_VERSION_HEX >= 0x030C0000
constexpr bool singletons_are_immortal = true;
#else
constexpr bool singletons_are_immortal = false;
#endif

bool is_singleton(std::size_t quantity) {
    return quantity >= READING::trues;
}

double references_to(PyObject* object) {
    return singletons_are_immortal ? -1 : static_cast<double>(Py_REFCNT(object));
}

std::string column(const std::string& text) {
    constexpr std::size_t width = 11;
    return std::string(text.size() < width ? width - text.size() : 1, ' ') + text;
}

std::string number_text(std::size_t quantity, double number) {
    return MEM_DETAIL::stl_raw_sprintf(quantity == READING::memory ? "%.1f" : "%.0f",
                                       number / rows[quantity].unit);
}

std::string why_not_told(std::size_t quantity) {
    return is_singleton(quantity) && singletons_are_immortal ? "immortal" : "not told";
}

}  // namespace

READING READING::now() {
    READING reading;
    reading.m_values[memory] = static_cast<double>(resident_memory());
    reading.m_values[handles] = count_of_open_handles();
    reading.m_values[threads] = count_of_threads();
    reading.m_values[sockets] = count_of_sockets();
    reading.m_values[trues] = references_to(Py_True);
    reading.m_values[falses] = references_to(Py_False);
    reading.m_values[nones] = references_to(Py_None);
    return reading;
}

std::string READING::table_head() {
    std::string head = column("seconds") + column("calls") + column("calls/s");
    for (const ROW& row : rows) {
        head += column(row.name);
    }
    return head;
}

std::string READING::table_row(double seconds, int calls, double calls_a_second) const {
    std::string text = column(MEM_DETAIL::stl_raw_sprintf("%.0f", seconds)) +
                       column(std::to_string(calls)) +
                       column(MEM_DETAIL::stl_raw_sprintf("%.1f", calls_a_second));
    for (std::size_t quantity = 0; quantity < quantities; ++quantity) {
        const double number = m_values[quantity];
        text += column(number < 0 ? why_not_told(quantity) : number_text(quantity, number));
    }
    return text;
}

HISTORY::HISTORY(std::size_t size) : m_readings(size) {}

void HISTORY::add(const READING& reading) {
    m_readings.at(m_count) = reading;
    ++m_count;
}

double HISTORY::growth(READING::QUANTITY quantity) const {
    const std::size_t quarter = m_count / 4;
    const auto median = [&](std::size_t first) {
        std::vector<double> values;
        for (std::size_t index = first; index < first + quarter; ++index) {
            values.push_back(m_readings[index].value(quantity));
        }
        std::sort(values.begin(), values.end());
        return values[quarter / 2];
    };
    return median(m_count - quarter) - median(0);
}

double HISTORY::growth_per_reading(READING::QUANTITY quantity) const {
    return growth(quantity) / (0.75 * static_cast<double>(m_count));
}

bool report_trends(const HISTORY& calls, const HISTORY& sessions_before,
                   const HISTORY& sessions_after) {
    bool trend = false;
    std::printf("\nFrom the first to the last quarter of the calls:\n");
    for (std::size_t index = 0; index < READING::quantities; ++index) {
        const READING::QUANTITY quantity = static_cast<READING::QUANTITY>(index);
        const ROW& row = rows[index];
        if (READING::now().value(quantity) < 0) {
            std::printf("%-11s %s\n", row.name, why_not_told(index).c_str());
            continue;
        }
        const double growth = calls.growth(quantity);
        const double session = std::max({0.0, sessions_before.growth_per_reading(quantity),
                                         sessions_after.growth_per_reading(quantity)});
        const double allowed = session * 0.75 * static_cast<double>(calls.size()) + row.margin;
        const bool rises_too_far = growth > allowed;
        // References that go are those that somebody else still holds.
        const bool falls = is_singleton(index) && growth < -row.margin;
        trend = trend || rises_too_far || falls;
        std::printf("%-11s %+9.2f; as many bare sessions %+9.2f, margin %.2f: %s\n", row.name,
                    growth / row.unit, (allowed - row.margin) / row.unit, row.margin / row.unit,
                    rises_too_far ? "RISES"
                    : falls       ? "FALLS"
                                  : "steady");
    }
    return trend;
}
