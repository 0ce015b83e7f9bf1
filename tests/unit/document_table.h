// The tables of a document in docs/, which tests play row by row.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace test {

inline std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" `");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" `") - first + 1);
}

// The parts between the separators, without blanks and backquotes around them.
inline std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(trimmed(part));
    return parts;
}

inline std::string joined(const std::vector<std::string>& parts, const std::string& separator) {
    std::string all;
    for (const auto& part : parts)
        all += (all.empty() ? std::string() : separator) + part;
    return all;
}

inline std::string joined(const std::vector<long long>& numbers) {
    std::vector<std::string> texts;
    for (const auto number : numbers)
        texts.push_back(std::to_string(number));
    return joined(texts, ", ");
}

struct TableRow {
    std::string section;              // the heading above it
    std::vector<std::string> header;  // its table's first row
    std::vector<std::string> cells;
};

// Every row of every table in docs/`name`, without the tables' first rows.
inline std::vector<TableRow> tableRows(const std::string& name) {
    std::ifstream document(std::string(ZIQBLE_SOURCE_DIR) + "/docs/" + name);
    std::vector<TableRow> rows;
    TableRow row;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("##")) row.section = trimmed(line.substr(line.find(' ')));
        if (!line.starts_with("|")) {
            row.header.clear();
            continue;
        }
        if (line.starts_with("|---")) continue;
        row.cells = split(std::regex_replace(line.substr(1), std::regex(R"(\\\|)"), "\n"), '|');
        for (std::string& cell : row.cells)
            std::replace(cell.begin(), cell.end(), '\n', '|');
        row.header.empty() ? row.header = row.cells : (rows.push_back(row), row.cells);
    }
    return rows;
}

// Plays each row of one section: `play` gets the cells and returns what the last ones should be.
template <class Play>
void expectRows(const std::string& name, const std::string& section, Play play) {
    std::size_t played = 0;
    for (const TableRow& row : tableRows(name)) {
        if (row.section != section) continue;
        std::vector<std::string> outcome = play(row.cells);
        std::transform(outcome.begin(), outcome.end(), outcome.begin(), trimmed);
        ASSERT_LT(outcome.size(), row.cells.size());
        const std::vector<std::string> told(row.cells.end() - static_cast<long>(outcome.size()),
                                            row.cells.end());
        EXPECT_EQ(outcome, told) << row.cells[0] << " " << row.cells[1];
        ++played;
    }
    EXPECT_GT(played, 0U) << section;
}

}  // namespace test
