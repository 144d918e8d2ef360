#include "bench/table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ostream>

TABLE::TABLE(std::vector<std::string> heads) {
    m_rows.push_back(std::move(heads));
}

void TABLE::add(std::vector<std::string> cells) {
    m_rows.push_back(std::move(cells));
}

void TABLE::print(std::ostream& out) const {
    std::vector<std::size_t> widths(m_rows[0].size(), 3);
    for (const auto& row : m_rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    for (std::size_t index = 0; index < m_rows.size(); ++index) {
        for (std::size_t column = 0; column < widths.size(); ++column) {
            const std::string& cell = m_rows[index][column];
            const std::string blanks(widths[column] - cell.size(), ' ');
            out << "| " << (column == 0 ? cell + blanks : blanks + cell) << ' ';
        }
        out << "|\n";
        if (index == 0) {
            for (std::size_t column = 0; column < widths.size(); ++column) {
                const std::string line(widths[column], '-');
                out << (column == 0 ? "|-" + line + "-" : "|-" + line + ":");
            }
            out << "|\n";
        }
    }
}

std::string fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

double quantile(std::vector<double> values, double part) {
    if (values.empty()) {
        return std::nan("");
    }
    std::sort(values.begin(), values.end());
    const double place = part * static_cast<double>(values.size() - 1);
    const std::size_t below = static_cast<std::size_t>(place);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    const double share = place - static_cast<double>(below);
    return values[below] * (1 - share) + values[above] * share;
}
