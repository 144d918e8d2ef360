// What the process holds, read after every call, and whether it rises.

#ifndef TESTS_SOAK_SOAK_READINGS_H
#define TESTS_SOAK_SOAK_READINGS_H

#include <array>
#include <cstddef>
#include <string>
#include <vector>

// One look at the process.
class READING {
public:
    enum QUANTITY { memory, handles, threads, sockets, trues, falses, nones, quantities };

    static READING now();

    // The quantity's value; negative where it is not told.
    double value(QUANTITY quantity) const { return m_values[quantity]; }

    static std::string table_head();
    std::string table_row(double seconds, int calls, double calls_a_second) const;

private:
    std::array<double, quantities> m_values = {};
};

// The readings of a batch, in order.
class HISTORY {
public:
    // Has the memory for `size` readings, so that adding them does not change what is read.
    explicit HISTORY(std::size_t size);
    void add(const READING& reading);
    std::size_t size() const { return m_count; }

    // The median of a quantity in the last quarter of the batch less that in the first.
    double growth(READING::QUANTITY quantity) const;

    // The same for one reading: the quarters are three quarters of the batch apart.
    double growth_per_reading(READING::QUANTITY quantity) const;

private:
    std::vector<READING> m_readings;
    std::size_t m_count = 0;
};

// Prints how far each quantity has risen over the calls, and how far it may: by what the sessions
// of the worse batch cost, as many as there were calls, and by a margin. Returns whether one has
// risen further, or one of the references has fallen by more than the margin.
bool report_trends(const HISTORY& calls, const HISTORY& sessions_before,
                   const HISTORY& sessions_after);

#endif
