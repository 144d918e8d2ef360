// Tables of text, in Markdown's form, which reads well on a terminal too.

#ifndef BENCH_TABLE_H
#define BENCH_TABLE_H

#include <iosfwd>
#include <string>
#include <vector>

class TABLE {
public:
    // The first column is text, the others are numbers.
    explicit TABLE(std::vector<std::string> heads);

    void add(std::vector<std::string> cells);
    bool empty() const { return m_rows.size() == 1; }
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<std::string>> m_rows;
};

// "1.23" with so many digits after the point.
std::string fixed(double value, int digits);

// The value below which the share `part` (0 to 1) of the values lies.
double quantile(std::vector<double> values, double part);

inline double median(const std::vector<double>& values) {
    return quantile(values, 0.5);
}

#endif
