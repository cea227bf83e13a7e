#include "core/store/smart_rules.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

namespace orvel {
namespace {

using nlohmann::json;

constexpr std::array<SmartField, 15> kFields = {{
    {"artist", "Artist", "artist", false},
    {"album", "Album", "album", false},
    {"title", "Name", "title", false},
    {"genre", "Genre", "genre", false},
    {"grouping", "Grouping", "grouping", false},
    {"label", "Label", "label", false},
    {"comment", "Comment", "comment", false},
    {"key", "Key", "key", false},
    {"bpm", "BPM", "bpm", true},
    {"year", "Year", "year", true, true},
    {"rating", "Rating", "rating", true},
    {"plays", "Plays", "play_count", true},
    {"bitrate", "Bit Rate", "bitrate_kbps", true},
    {"dateAdded", "Date Added", "date_added", true},
    {"kind", "Kind", "file_type", false},
}};

constexpr std::array<SmartOption, 6> kTextOps = {{
    {"contains", "contains"},
    {"notContains", "does not contain"},
    {"is", "is"},
    {"isNot", "is not"},
    {"startsWith", "starts with"},
    {"endsWith", "ends with"},
}};

constexpr std::array<SmartOption, 7> kNumericOps = {{
    {"is", "is"},
    {"isNot", "is not"},
    {"gt", "is greater than"},
    {"lt", "is less than"},
    {"atLeast", "is at least"},
    {"atMost", "is at most"},
    {"inLast", "is in the last"},
}};

// "title" is labelled "album" and orders by album: the label is what users
// of the editor have always seen, so both halves stay as they are.
constexpr std::array<SmartOption, 6> kLimitOptions = {{
    {"random", "random"},
    {"added", "most recently added"},
    {"rating", "highest rating"},
    {"plays", "most often played"},
    {"title", "album"},
    {"artist", "artist"},
}};

double secondsNow() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// A whole number of days or a fraction ("0.5"); anything else is none.
std::optional<double> parseDays(const std::string& value) {
  if (value.empty() || std::isspace(static_cast<unsigned char>(value.front()))) return std::nullopt;
  char* end = nullptr;
  const double days = std::strtod(value.c_str(), &end);
  if (end != value.c_str() + value.size() || !std::isfinite(days)) return std::nullopt;
  return days;
}

// A finite number written the usual way ("124", "-3", "0.5", "1e3"); no
// blanks, no "inf" or "nan", nothing past the number.
std::optional<double> parseNumber(const std::string& value) {
  if (value.empty() || std::isspace(static_cast<unsigned char>(value.front()))) return std::nullopt;
  for (char c : value)
    if (std::isalpha(static_cast<unsigned char>(c)) && c != 'e' && c != 'E') return std::nullopt;
  char* end = nullptr;
  const double v = std::strtod(value.c_str(), &end);
  if (end != value.c_str() + value.size() || !std::isfinite(v)) return std::nullopt;
  return v;
}

// A whole number binds as an integer, anything else as a real.
SmartBind numberBind(double v) {
  if (v == std::trunc(v) && std::abs(v) < 9e15) return static_cast<int64_t>(v);
  return v;
}

// The number as the catalogue writes it in a text column: "2004", not "2004.0".
std::string numberText(double v) {
  if (v == std::trunc(v) && std::abs(v) < 9e15) return std::to_string(static_cast<int64_t>(v));
  std::ostringstream out;
  out << v;
  return out.str();
}

int64_t truncateToInt64(double v) {
  constexpr double kMax = 9.2e18;  // inside int64 on both sides
  return static_cast<int64_t>(std::clamp(v, -kMax, kMax));
}

bool isUUID(std::string_view s) {
  if (s.size() != 36) return false;
  for (size_t i = 0; i < s.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? s[i] != '-' : !std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
  }
  return true;
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

std::string bindText(const SmartBind& bind) {
  if (const auto* text = std::get_if<std::string>(&bind)) {
    std::string quoted = "'";
    for (char c : *text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
  }
  if (const auto* whole = std::get_if<int64_t>(&bind)) return std::to_string(*whole);
  std::ostringstream out;
  out << std::get<double>(bind);
  return out.str();
}

std::string newUUID() {
  thread_local std::mt19937_64 gen{std::random_device{}()};
  std::array<uint8_t, 16> b{};
  for (size_t i = 0; i < b.size(); i += 8) {
    const uint64_t r = gen();
    for (size_t k = 0; k < 8; ++k) b[i + k] = static_cast<uint8_t>(r >> (8 * k));
  }
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (size_t i = 0; i < b.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
    out += kHex[b[i] >> 4];
    out += kHex[b[i] & 15];
  }
  return out;
}

SmartRule SmartRule::make(std::string field, std::string op, std::string value) {
  return {newUUID(), std::move(field), std::move(op), std::move(value)};
}

std::span<const SmartField> SmartRule::fields() {
  return kFields;
}

const SmartField* SmartRule::fieldFor(std::string_view id) {
  for (const SmartField& f : kFields)
    if (f.id == id) return &f;
  return nullptr;
}

std::span<const SmartOption> SmartRule::ops(bool numeric) {
  if (numeric) return kNumericOps;
  return kTextOps;
}

std::optional<std::pair<std::string, SmartBind>> SmartRule::sql() const {
  return sql(secondsNow());
}

std::optional<std::string> SmartRule::problem() const {
  const SmartField* f = fieldFor(field);
  const std::string rule = field + ":" + op + ":" + value;
  if (f == nullptr) return "the rule " + rule + " names no field Orvel knows";
  const auto ops = SmartRule::ops(f->numeric);
  if (std::none_of(ops.begin(), ops.end(), [&](const SmartOption& o) { return o.id == op; }))
    return "the rule " + rule + " uses an operator " + std::string(f->id) + " does not take";
  if (!f->numeric) return std::nullopt;
  const auto number = parseNumber(value);
  if (!number) return "the rule " + rule + ": " + std::string(f->id) + " takes a number";
  if (op == "inLast" && *number < 0) return "the rule " + rule + ": a number of days, 0 or more";
  return std::nullopt;
}

std::optional<std::pair<std::string, SmartBind>> SmartRule::sql(double now) const {
  const SmartField* f = fieldFor(field);
  if (f == nullptr) return std::nullopt;
  const std::string column(f->column);
  // Operators are not checked against the field's kind: a hand-edited
  // document may say "gt" of a text field and gets the same SQL.
  if (op == "contains") return std::pair{"COALESCE(" + column + ",'') LIKE ?", "%" + value + "%"};
  if (op == "notContains")
    return std::pair{"COALESCE(" + column + ",'') NOT LIKE ?", "%" + value + "%"};
  if (op == "startsWith") return std::pair{"COALESCE(" + column + ",'') LIKE ?", value + "%"};
  if (op == "endsWith") return std::pair{"COALESCE(" + column + ",'') LIKE ?", "%" + value};
  // A number field compares numbers; a value that is none (a document
  // saved before values were checked) stays text and matches nothing.
  const auto number = f->numeric ? parseNumber(value) : std::nullopt;
  const auto bound = [&]() -> SmartBind {
    if (!number) return value;
    if (f->storedAsText) return numberText(*number);
    return numberBind(*number);
  };
  if (op == "is") return std::pair{"COALESCE(" + column + ",'') = ?", bound()};
  if (op == "isNot") return std::pair{"COALESCE(" + column + ",'') <> ?", bound()};
  // "Is at least" and "is at most" are what Serato's smart crates say of
  // tempos and years; they compare as "gt" and "lt" do.
  static const std::array<std::pair<std::string_view, std::string_view>, 4> kComparisons{
      {{"gt", ">"}, {"lt", "<"}, {"atLeast", ">="}, {"atMost", "<="}}};
  for (const auto& [name, sign] : kComparisons)
    if (op == name)
      return std::pair{"CAST(COALESCE(" + column + ",0) AS REAL) " + std::string(sign) + " ?",
                       number ? numberBind(*number) : SmartBind(value)};
  if (op == "inLast") {
    const double days = parseDays(value).value_or(30.0);
    const int64_t cutoff = truncateToInt64(now - days * 86400.0);
    return std::pair{"COALESCE(" + column + ",0) > ?", SmartBind(cutoff)};
  }
  return std::nullopt;
}

std::span<const SmartOption> SmartPlaylist::limitOptions() {
  return kLimitOptions;
}

std::pair<std::string, std::vector<SmartBind>> SmartPlaylist::query() const {
  return query(secondsNow());
}

std::optional<std::string> SmartPlaylist::problem() const {
  if (rules.empty()) return "Add at least one rule — an empty one matches everything";
  for (const SmartRule& rule : rules)
    if (auto why = rule.problem()) return why;
  return std::nullopt;
}

std::pair<std::string, std::vector<SmartBind>> SmartPlaylist::query(double now) const {
  std::string condition;
  std::vector<SmartBind> binds;
  for (const SmartRule& rule : rules) {
    auto clause = rule.sql(now);
    if (!clause) continue;
    if (!binds.empty()) condition += matchAll ? " AND " : " OR ";
    condition += clause->first;
    binds.push_back(std::move(clause->second));
  }
  if (binds.empty()) condition = "1=1";

  std::string sql =
      "SELECT id FROM tracks\nWHERE merged_into IS NULL AND COALESCE(removed,0)=0 AND (" +
      condition + ")";
  if (limitBy == "added")
    sql += " ORDER BY COALESCE(date_added,0) DESC";
  else if (limitBy == "rating")
    sql += " ORDER BY COALESCE(rating,0) DESC";
  else if (limitBy == "plays")
    sql += " ORDER BY COALESCE(play_count,0) DESC";
  else if (limitBy == "artist")
    sql += " ORDER BY artist COLLATE NOCASE";
  else if (limitBy == "title")
    sql += " ORDER BY album COLLATE NOCASE";
  else
    sql += " ORDER BY RANDOM()";
  if (limitEnabled) sql += " LIMIT " + std::to_string(std::max<int64_t>(limitCount, 1));
  return {std::move(sql), std::move(binds)};
}

std::string SmartPlaylist::toJSON() const {
  json list = json::array();
  for (const SmartRule& r : rules)
    list.push_back({{"id", upper(r.id)}, {"field", r.field}, {"op", r.op}, {"value", r.value}});
  return json{{"name", name},
              {"matchAll", matchAll},
              {"rules", list},
              {"limitEnabled", limitEnabled},
              {"limitCount", limitCount},
              {"limitBy", limitBy},
              {"liveUpdate", liveUpdate}}
      .dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<SmartPlaylist> SmartPlaylist::fromJSON(std::string_view text) {
  const json doc = json::parse(text, nullptr, false);
  if (!doc.is_object()) return std::nullopt;
  const auto has = [](const json& o, const char* key, json::value_t type) {
    const auto it = o.find(key);
    return it != o.end() && it->type() == type;
  };
  using T = json::value_t;
  if (!has(doc, "name", T::string) || !has(doc, "matchAll", T::boolean) ||
      !has(doc, "rules", T::array) || !has(doc, "limitEnabled", T::boolean) ||
      !has(doc, "limitBy", T::string) || !has(doc, "liveUpdate", T::boolean))
    return std::nullopt;
  const auto count = doc.find("limitCount");
  if (count == doc.end() || !(count->is_number_integer() || count->is_number_float()))
    return std::nullopt;
  if (count->is_number_unsigned() &&
      count->get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
    return std::nullopt;
  if (count->is_number_float()) {
    const double c = count->get<double>();
    if (c != std::trunc(c) || std::abs(c) > 9.2e18) return std::nullopt;
  }

  SmartPlaylist p;
  p.name = doc["name"].get<std::string>();
  p.matchAll = doc["matchAll"].get<bool>();
  p.limitEnabled = doc["limitEnabled"].get<bool>();
  p.limitCount =
      count->is_number_float() ? static_cast<int64_t>(count->get<double>()) : count->get<int64_t>();
  p.limitBy = doc["limitBy"].get<std::string>();
  p.liveUpdate = doc["liveUpdate"].get<bool>();
  p.rules.clear();
  for (const json& r : doc["rules"]) {
    if (!r.is_object() || !has(r, "id", T::string) || !has(r, "field", T::string) ||
        !has(r, "op", T::string) || !has(r, "value", T::string))
      return std::nullopt;
    const std::string id = r["id"].get<std::string>();
    if (!isUUID(id)) return std::nullopt;
    p.rules.push_back({upper(id), r["field"].get<std::string>(), r["op"].get<std::string>(),
                       r["value"].get<std::string>()});
  }
  return p;
}

}  // namespace orvel
