// The tables of a document in docs/, which tests play row by row.
#pragma once

#include <fstream>
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
        row.cells = split(line.substr(1), '|');
        row.header.empty() ? row.header = row.cells : (rows.push_back(row), row.cells);
    }
    return rows;
}

}  // namespace test
