// Smart playlists as values: a list of rules, each turned into one SQL
// predicate with one bound value, joined with AND or OR into a statement
// that returns track ids. Pure: no database here (the store runs the query).
//
// A number field's value is bound as a number: "COALESCE(rating,'') = ?"
// compares an integer with whatever is bound, and SQLite never finds the
// integer 60 equal to the text '60'. Year is kept as text in the catalogue
// and is compared as text for is / is not.
//
// The rules are stored as one JSON document per playlist, every key required:
//   {"name", "matchAll", "rules": [{"id", "field", "op", "value"}…],
//    "limitEnabled", "limitCount", "limitBy", "liveUpdate"}
// with rule ids as upper-case hyphenated UUIDs.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace orvel {

struct SmartField {
  std::string_view id;
  std::string_view label;
  std::string_view column;  // of `tracks`
  bool numeric = false;
  bool storedAsText = false;  // a number kept in a text column (year)
};

// One bound value of a smart playlist's statement.
using SmartBind = std::variant<std::string, int64_t, double>;
// The value as it reads in SQL ('text' quoted, numbers bare).
std::string bindText(const SmartBind& bind);

struct SmartOption {
  std::string_view id;
  std::string_view label;
};

// A fresh random UUID in its canonical upper-case form.
std::string newUUID();

struct SmartRule {
  std::string id;  // UUID
  std::string field;
  std::string op;
  std::string value;  // always text, also for numbers and days

  // A rule with a fresh id.
  static SmartRule make(std::string field, std::string op, std::string value);

  // The field table and the operators the editor offers per kind of field.
  static std::span<const SmartField> fields();
  static const SmartField* fieldFor(std::string_view id);
  static std::span<const SmartOption> ops(bool numeric);

  // Why the rule cannot be saved (an unknown field or operator, a number
  // field given something other than a finite number, "inLast" given a
  // negative number of days), in words that name the rule; none when fine.
  std::optional<std::string> problem() const;

  // (predicate, bind value); none for an unknown field or operator. `now` is
  // Unix seconds, for "inLast".
  std::optional<std::pair<std::string, SmartBind>> sql(double now) const;
  std::optional<std::pair<std::string, SmartBind>> sql() const;

  bool operator==(const SmartRule&) const = default;
};

struct SmartPlaylist {
  std::string name = "New Smart Playlist";
  bool matchAll = true;
  std::vector<SmartRule> rules{SmartRule::make("artist", "contains", "")};
  bool limitEnabled = false;
  int64_t limitCount = 25;
  std::string limitBy = "random";
  bool liveUpdate = true;

  static std::span<const SmartOption> limitOptions();

  // The statement and its binds, in order.
  std::pair<std::string, std::vector<SmartBind>> query(double now) const;
  std::pair<std::string, std::vector<SmartBind>> query() const;
  // The first rule's problem() (also "no rules"); none when it can be saved.
  std::optional<std::string> problem() const;

  std::string toJSON() const;
  // None when the text is not such a document (a key missing, a wrong type,
  // a malformed rule id).
  static std::optional<SmartPlaylist> fromJSON(std::string_view text);

  bool operator==(const SmartPlaylist&) const = default;
};

}  // namespace orvel
