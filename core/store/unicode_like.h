// SQL's LIKE with Unicode case folding, registered on every connection in
// place of SQLite's own, which folds ASCII letters only: a smart rule
// "Artist contains été" must find "Été" as the search field does. The rule
// is the search field's: both texts fully lower-cased (ICU, no diacritic
// folding), then '%' matches any run of characters, '_' one character, and
// the ESCAPE character makes the next one literal.
#pragma once

#include <sqlite3.h>

#include <optional>
#include <string_view>

namespace orvel {

// Whether `text` matches `pattern`; both are UTF-8. `escape` is one
// character or none.
bool unicodeLike(std::string_view pattern, std::string_view text,
                 std::optional<std::string_view> escape = std::nullopt);

// like(P, T) and like(P, T, E) on `db`; returns SQLite's result code.
int registerUnicodeLike(sqlite3* db);

}  // namespace orvel
