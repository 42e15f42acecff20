#include "Tests/Support/Table.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace {

constexpr std::pair<std::string_view, char> pictures[] = {
    {"␀", '\0'}, {"␈", '\b'}, {"␉", '\t'}, {"␊", '\n'}, {"␍", '\r'}, {"␛", '\x1B'}, {"␠", ' '}, {"␡", '\x7F'},
};

std::string column(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == text.npos) return "";
  std::string value(text.substr(first, text.find_last_not_of(' ') - first + 1));
  if (value == "∅") return "";
  for (const auto& [picture, character] : pictures)
    value = replaced(std::move(value), picture, {&character, 1});
  return value;
}

}  // namespace

std::vector<std::vector<std::string>> rows(std::string_view table) {
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
    if (!found.empty()) columns.resize(std::max(columns.size(), found.front().size()));
    found.push_back(std::move(columns));
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
