#include "core/store/serato_smart_rules.h"

#include <charconv>
#include <ctime>
#include <map>
#include <string_view>
#include <vector>

#include "core/text/split.h"

namespace orvel {
namespace {

using Test = SeratoSmartRule::Test;

// Serato's field numbers and the smart field that holds the same value.
const std::map<uint32_t, std::string_view>& fieldIds() {
  static const std::map<uint32_t, std::string_view> fields{
      {6, "title"}, {7, "artist"},     {8, "album"},     {9, "genre"},
      {15, "bpm"},  {17, "comment"},   {19, "grouping"}, {21, "label"},
      {23, "year"}, {25, "dateAdded"}, {51, "key"},      {79, "plays"}};
  return fields;
}

std::optional<int64_t> wholeNumber(std::string_view text) {
  text = trim(text);
  int64_t v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

std::optional<int64_t> localMidnight(int year, int month, int day) {
  if (year < 1970 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31)
    return std::nullopt;
  std::tm tm{};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_isdst = -1;
  const std::time_t t = std::mktime(&tm);
  // mktime rolls 31 February over into March; such a date was not meant.
  if (t == -1 || tm.tm_mday != day) return std::nullopt;
  return static_cast<int64_t>(t);
}

// Days in a count of Serato's units ("2" "weeks"); none for a unit unknown.
std::optional<double> days(uint32_t count, std::string_view unit) {
  unit = trim(unit);
  const char u =
      unit.empty() ? 'd' : static_cast<char>(std::tolower(static_cast<unsigned char>(unit[0])));
  switch (u) {
    case 'd':
      return count;
    case 'w':
      return count * 7.0;
    case 'm':
      return count * 30.0;
    case 'y':
      return count * 365.0;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<int64_t> seratoRuleDate(const std::string& text) {
  const std::string_view t = trim(text);
  if (const auto n = wholeNumber(t)) {
    if (*n >= 100000000) return n;  // Unix seconds, from 1973 on
    return std::nullopt;
  }
  for (char sep : {'-', '/', '.'}) {
    const std::vector<std::string_view> parts = split(t, sep);
    if (parts.size() != 3) continue;
    std::vector<int64_t> n;
    for (std::string_view p : parts)
      if (auto v = wholeNumber(p)) n.push_back(*v);
    if (n.size() != 3) return std::nullopt;
    if (parts[0].size() == 4) return localMidnight(int(n[0]), int(n[1]), int(n[2]));
    if (parts[2].size() != 4) return std::nullopt;
    // Day first or month first: only when one of them cannot be a month.
    if (n[0] > 12 && n[1] <= 12) return localMidnight(int(n[2]), int(n[1]), int(n[0]));
    if (n[1] > 12 && n[0] <= 12) return localMidnight(int(n[2]), int(n[0]), int(n[1]));
    if (n[0] == n[1]) return localMidnight(int(n[2]), int(n[0]), int(n[1]));
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<SmartRule> translateSeratoRule(const SeratoSmartRule& rule) {
  const auto field = fieldIds().find(rule.fieldId);
  if (field == fieldIds().end()) return std::nullopt;
  const SmartField* f = SmartRule::fieldFor(field->second);
  if (!f) return std::nullopt;
  const std::string id(f->id);
  const Test test = rule.test();

  if (!f->numeric) {
    static const std::map<Test, std::string_view> textOps{{Test::is, "is"},
                                                          {Test::isNot, "isNot"},
                                                          {Test::contains, "contains"},
                                                          {Test::doesNotContain, "notContains"},
                                                          {Test::beginsWith, "startsWith"},
                                                          {Test::endsWith, "endsWith"}};
    const auto op = textOps.find(test);
    if (op == textOps.end()) return std::nullopt;
    std::string value;
    if (rule.textValue)
      value = *rule.textValue;
    else if (rule.uintValue)
      value = std::to_string(*rule.uintValue);
    else
      return std::nullopt;
    return SmartRule::make(id, std::string(op->second), value);
  }

  if (id == "dateAdded") {
    const std::string unit = rule.textValue.value_or(rule.dateText.value_or(""));
    if (test == Test::inLast) {
      if (!rule.uintValue) return std::nullopt;
      const auto d = days(*rule.uintValue, unit);
      if (!d) return std::nullopt;
      return SmartRule::make(id, "inLast", std::to_string(static_cast<int64_t>(*d)));
    }
    if (test != Test::after && test != Test::before) return std::nullopt;
    std::optional<int64_t> day;
    if (rule.dateText)
      day = seratoRuleDate(*rule.dateText);
    else if (rule.textValue)
      day = seratoRuleDate(*rule.textValue);
    else if (rule.uintValue && *rule.uintValue >= 100000000u)
      day = *rule.uintValue;
    if (!day) return std::nullopt;
    // "After the 15th" starts with the 16th; "before" ends as the day starts.
    if (test == Test::after) return SmartRule::make(id, "gt", std::to_string(*day + 86400 - 1));
    return SmartRule::make(id, "lt", std::to_string(*day));
  }

  static const std::map<Test, std::string_view> numberOps{
      {Test::is, "is"},       {Test::isNot, "isNot"},     {Test::greaterThan, "gt"},
      {Test::lessThan, "lt"}, {Test::atLeast, "atLeast"}, {Test::atMost, "atMost"}};
  const auto op = numberOps.find(test);
  if (op == numberOps.end()) return std::nullopt;
  std::string value;
  if (rule.uintValue)
    value = std::to_string(*rule.uintValue);
  else if (rule.textValue)
    value = std::string(trim(*rule.textValue));
  SmartRule out = SmartRule::make(id, std::string(op->second), value);
  if (out.problem()) return std::nullopt;
  return out;
}

SeratoSmartTranslation translateSeratoSmartCrate(const SeratoCrate& crate) {
  SeratoSmartTranslation out;
  if (!crate.isSmart || crate.rules.empty()) return out;
  SmartPlaylist playlist;
  playlist.name = crate.nameChain.empty() ? std::string("Smart Crate") : crate.nameChain.back();
  playlist.matchAll = crate.matchAll;
  playlist.liveUpdate = crate.live;
  playlist.limitBy = "artist";  // a steady order, as Serato's crates list by column
  playlist.rules.clear();
  for (const SeratoSmartRule& rule : crate.rules) {
    auto translated = translateSeratoRule(rule);
    if (!translated) {
      out.untranslated = rule.summary();
      return out;
    }
    playlist.rules.push_back(std::move(*translated));
  }
  out.playlist = std::move(playlist);
  return out;
}

}  // namespace orvel
