// The path key of the catalogue: Unicode NFC composition followed by full
// Unicode lower-casing (ICU), so that "É", "é" and "e"+U+0301 are one key.
#pragma once

#include <string>
#include <string_view>

namespace orvel {

// UTF-8 in, UTF-8 out. A text that is not valid UTF-8 (a Linux file name is
// any bytes) keeps its bytes, with ASCII letters lower-cased.
std::string normalizePathKey(std::string_view utf8);

// Full Unicode lower-casing without normalisation (search, folding).
std::string lowerUnicode(std::string_view utf8);
// The same, appended to `out`: no string of its own for each of a library's
// hundreds of thousands of fields.
void appendLowerUnicode(std::string& out, std::string_view utf8);

// Whether the bytes are well-formed UTF-8 (no overlong forms or surrogates).
bool isValidUtf8(std::string_view s);

}  // namespace orvel
