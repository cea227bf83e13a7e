// A Serato smart crate's rules as Orvel's smart rules, so the crate keeps
// its members and stays live after the import. A crate translates only as a
// whole: dropping one rule of "all of" would let too much in, dropping one
// of "any of" too little, so one rule that does not map (a field Orvel does
// not keep, a test it cannot make, a date it cannot read) keeps the whole
// crate as Serato last filled it.
#pragma once

#include <optional>
#include <string>

#include "core/formats/serato_library.h"
#include "core/store/smart_rules.h"

namespace orvel {

struct SeratoSmartTranslation {
  std::optional<SmartPlaylist> playlist;
  std::string untranslated;  // the summary of the first rule that does not map
};

SeratoSmartTranslation translateSeratoSmartCrate(const SeratoCrate& crate);

// One rule, or none when it does not map.
std::optional<SmartRule> translateSeratoRule(const SeratoSmartRule& rule);

// A date as Serato's rules write it, as the Unix time of that day's start
// in local time: "2024-03-15", "2024/03/15", "15/03/2024" (only where day
// and month cannot be mistaken), or Unix seconds.
std::optional<int64_t> seratoRuleDate(const std::string& text);

}  // namespace orvel
