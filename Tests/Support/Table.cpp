#include "Tests/Support/Table.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "Tests/Support/Repeated.h"

namespace {

constexpr std::pair<std::string_view, char> pictures[] = {
    {"␀", '\0'}, {"␈", '\b'}, {"␉", '\t'}, {"␊", '\n'}, {"␍", '\r'}, {"␛", '\x1B'}, {"␠", ' '}, {"␡", '\x7F'},
};

// What stands between « and ».
std::string expanded(const std::string& text) {
  const std::size_t times = text.find("×");
  if (times != text.npos) return repeated(text.substr(0, times), std::stoul(text.substr(times + 2)));
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); at += 2)
    bytes += static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16));
  return bytes;
}

std::string column(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == text.npos) return "";
  std::string value(text.substr(first, text.find_last_not_of(' ') - first + 1));
  if (value == "∅") return "";
  for (const auto& [picture, character] : pictures)
    value = replaced(std::move(value), picture, {&character, 1});
  for (std::size_t at = value.rfind("«"); at != value.npos; at = value.rfind("«")) {
    const std::size_t end = value.find("»", at);
    value.replace(at, end + 2 - at, expanded(value.substr(at + 2, end - at - 2)));
  }
  return value;
}

// Every row with the columns that it has.
std::vector<std::vector<std::string>> read(std::string_view table) {
  constexpr std::string_view separator = "¦";
  std::vector<std::vector<std::string>> found;
  while (!table.empty()) {
    std::string_view line = table.substr(0, table.find('\n'));
    table.remove_prefix(std::min(line.size() + 1, table.size()));
    if (line.find_first_not_of(' ') == line.npos || line.starts_with('#')) continue;
    std::vector<std::string> columns;
    for (std::size_t end = line.find(separator); end != line.npos; end = line.find(separator)) {
      columns.push_back(column(line.substr(0, end)));
      line.remove_prefix(end + separator.size());
    }
    columns.push_back(column(line));
    found.push_back(std::move(columns));
  }
  return found;
}

}  // namespace

std::vector<std::vector<std::string>> rows(std::string_view table) {
  std::vector<std::vector<std::string>> found = read(table);
  for (std::vector<std::string>& row : found)
    row.resize(std::max(row.size(), found.front().size()));
  return found;
}

std::vector<std::vector<std::string>> cases(std::size_t kept, std::string_view table) {
  std::vector<std::vector<std::string>> found;
  for (const std::vector<std::string>& row : read(table)) {
    for (std::size_t i = kept; i < row.size(); ++i)
      found.emplace_back(row.begin(), row.begin() + static_cast<std::ptrdiff_t>(kept)).push_back(row[i]);
  }
  return found;
}

std::vector<std::string> words(std::string_view text) {
  std::istringstream in{std::string(text)};
  std::vector<std::string> found;
  for (std::string word; in >> word;)
    found.push_back(word);
  return found;
}

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t at = text.find(from); at != text.npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}
