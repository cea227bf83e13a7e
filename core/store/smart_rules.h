// Smart playlists as values: a list of rules, each turned into one SQL
// predicate with one bound text, joined with AND or OR into a statement that
// returns track ids. Pure: no database here (the store runs the query).
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
#include <vector>

namespace orvel {

struct SmartField {
  std::string_view id;
  std::string_view label;
  std::string_view column;  // of `tracks`
  bool numeric = false;
};

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

  // (predicate, bind value); none for an unknown field or operator. `now` is
  // Unix seconds, for "inLast".
  std::optional<std::pair<std::string, std::string>> sql(double now) const;
  std::optional<std::pair<std::string, std::string>> sql() const;

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
  std::pair<std::string, std::vector<std::string>> query(double now) const;
  std::pair<std::string, std::vector<std::string>> query() const;

  std::string toJSON() const;
  // None when the text is not such a document (a key missing, a wrong type,
  // a malformed rule id).
  static std::optional<SmartPlaylist> fromJSON(std::string_view text);

  bool operator==(const SmartPlaylist&) const = default;
};

}  // namespace orvel
