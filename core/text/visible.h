// Text that came from outside (tags, file names, a server's words, a query a
// model wrote) made safe to print on a terminal: control characters and bytes
// that are not UTF-8 are shown as escapes instead of being sent raw, so a tag
// cannot move the cursor, recolour the screen or rewrite what was printed
// before it.
#pragma once

#include <string>
#include <string_view>

namespace orvel {

// Tab, line feed and carriage return become "\t", "\n", "\r"; every other C0
// control, DEL, a C1 control (U+0080–U+009F) and a byte that is not part of
// well-formed UTF-8 become "\xHH" (one per byte). A backslash stays as it is.
// Everything else, accents and scripts included, is kept.
std::string visible(std::string_view text);

// Whether visible() would change the text.
bool needsEscaping(std::string_view text);

}  // namespace orvel
