// Damage for tests: a catalogue file with one page of a table overwritten,
// as a failing disk or a bad copy leaves it.
#pragma once

#include <string>

namespace orvel::testing {

// Overwrites the last leaf page of `table`'s b-tree with junk, so a scan
// reads the rows before it and then meets the damage. The catalogue must be
// closed (its WAL folded back) and the table must span more than one page.
// Returns false when it could not find such a page.
bool damageLastPageOf(const std::string& dbPath, const std::string& table);

}  // namespace orvel::testing
