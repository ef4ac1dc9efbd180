// Tables of (input, expected) rows kept as files under tests/data/: one row a line, its fields
// separated by tabs; lines that are empty or start with "#" are notes. Within a field, \t, \r,
// \n, \\ and \xHH stand for the byte they name (so that a field can hold a tab or edge spaces),
// unless the table holds JSON text, whose own escapes are read as they stand.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace zelvanor::testing {

/// The text of tests/data/<name>.
inline std::string dataText(const std::string& name) {
  std::ifstream in(std::string(ZELVANOR_TEST_DATA_DIR) + "/" + name, std::ios::binary);
  if (!in) ADD_FAILURE() << "missing tests/data/" << name;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

/// The lines of tests/data/<name> as they are (a "\r" before a "\n" is kept).
inline std::vector<std::string> dataLines(const std::string& name) {
  std::istringstream in(dataText(name));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline std::string unescaped(std::string_view field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '\\' || i + 1 == field.size()) {
      out.push_back(field[i]);
      continue;
    }
    const char code = field[++i];
    if (code == 'x' && i + 2 < field.size()) {
      out.push_back(static_cast<char>(std::stoi(std::string(field.substr(i + 1, 2)), nullptr, 16)));
      i += 2;
    } else {
      out.push_back(code == 't' ? '\t' : code == 'r' ? '\r' : code == 'n' ? '\n' : code);
    }
  }
  return out;
}

enum class Escapes { read, keep };

/// The rows of the table in tests/data/<name>, each a list of its fields.
inline std::vector<std::vector<std::string>> dataTable(const std::string& name,
                                                       Escapes escapes = Escapes::read) {
  std::vector<std::vector<std::string>> rows;
  for (std::string_view line : dataLines(name)) {
    if (line.empty() || line.front() == '#') continue;
    std::vector<std::string> row;
    for (std::size_t at = 0;;) {
      const auto tab = line.find('\t', at);
      const std::string_view field = line.substr(at, tab - at);
      row.push_back(escapes == Escapes::read ? unescaped(field) : std::string(field));
      if (tab == std::string_view::npos) break;
      at = tab + 1;
    }
    rows.push_back(std::move(row));
  }
  EXPECT_FALSE(rows.empty()) << "no rows in tests/data/" << name;
  return rows;
}

}  // namespace zelvanor::testing
