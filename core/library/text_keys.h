// The keys the library compares texts by, computed once per text: the
// search key (full Unicode lower-casing, nothing else), the sort key that
// skips leading punctuation, and the order key that also sets accented Latin
// letters beside their base letter.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace orvel::library {

// The text from its first letter or digit on: quotes, brackets and dashes in
// front do not decide where "'Till Dawn" or "(Untitled)" sort. A text without
// any letter or digit gives "".
std::string_view sortKey(std::string_view text);

// Lower-cased (full Unicode lower-casing), for search and for telling
// spellings that differ only in case apart from real differences.
std::string folded(std::string_view text);

// A key whose byte order is the order a reader expects: lower-cased, with
// the accented letters of Latin-1 and Latin Extended-A spelt as their base
// letters ("Émile" beside "emile", "Øresund" among the o's, "ß" as "ss"),
// then the folded text itself so that the two spellings still differ.
std::string orderKey(std::string_view text);

// The distinct values of a column: trimmed, values that fold to the same
// text one entry (the first spelling seen), ordered by their sort key. The
// empty value is left out.
std::vector<std::string> foldedUnique(const std::vector<std::string_view>& values);

}  // namespace orvel::library
