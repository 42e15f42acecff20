// Tables of cases as text: a row a line, its columns separated by "¦". Blanks around a column do not count,
// and lines that are empty or begin with "#" are passed over. What a source line cannot show is written as
// its control picture: ␀ NUL, ␈ backspace, ␉ tab, ␊ line feed, ␍ carriage return, ␛ escape, ␠ a blank at an
// end, ␡ delete. «ab×3» is "ab" three times, and «C3A9» the bytes of those digits. A column that is nothing
// but "∅" is empty.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Every row of `table`; a row with fewer columns than the first one ends in empty ones.
std::vector<std::vector<std::string>> rows(std::string_view table);

// For each column behind the first `kept` of a row, a row of those and of it.
std::vector<std::vector<std::string>> cases(std::size_t kept, std::string_view table);

// The words of a text, as blanks and line feeds separate them.
std::vector<std::string> words(std::string_view text);

// `text` with `to` in every place of `from`.
std::string replaced(std::string text, std::string_view from, std::string_view to);
