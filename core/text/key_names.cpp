#include "core/text/key_names.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>

#include "core/text/split.h"

namespace orvel {
namespace {

std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return out;
}

// The musical names of each wheel position, by number - 1.
constexpr std::string_view kMinorNames[] = {"G#m", "Ebm", "Bbm", "Fm", "Cm",  "Gm",
                                            "Dm",  "Am",  "Em",  "Bm", "F#m", "C#m"};
constexpr std::string_view kMajorNames[] = {"B", "F#", "Db", "Ab", "Eb", "Bb",
                                            "F", "C",  "G",  "D",  "A",  "E"};

// Pitch class of each wheel position: a step round the wheel is a fifth.
int pitchClassOf(CamelotKey k) {
  const int majorPc = ((k.number - 8) * 7 % 12 + 12) % 12;  // 8B is C
  return k.minor ? (majorPc + 9) % 12 : majorPc;            // the relative minor
}

CamelotKey wheelOf(int pitchClass, bool minor) {
  const int majorPc = minor ? (pitchClass + 3) % 12 : pitchClass;
  // 7 is its own inverse mod 12, so fifths up from C give the wheel steps.
  const int steps = majorPc * 7 % 12;
  return {(7 + steps) % 12 + 1, minor};
}

// "8A", "12b": Camelot form. "1m", "6d": Open Key form.
std::optional<std::pair<CamelotKey, bool>> wheelForm(std::string_view key) {
  size_t digits = 0;
  while (digits < key.size() && std::isdigit(static_cast<unsigned char>(key[digits]))) ++digits;
  if (digits == 0 || digits > 2 || digits + 1 != key.size()) return std::nullopt;
  const int n = std::atoi(std::string(key.substr(0, digits)).c_str());
  if (n < 1 || n > 12) return std::nullopt;
  switch (std::tolower(static_cast<unsigned char>(key.back()))) {
    case 'a':
      return std::pair{CamelotKey{n, true}, false};
    case 'b':
      return std::pair{CamelotKey{n, false}, false};
    // Open Key numbers sit five steps round from Camelot's.
    case 'm':
      return std::pair{CamelotKey{(n + 6) % 12 + 1, true}, true};
    case 'd':
      return std::pair{CamelotKey{(n + 6) % 12 + 1, false}, true};
    default:
      return std::nullopt;
  }
}

std::string camelotText(CamelotKey k) {
  return fmt::format("{}{}", k.number, k.minor ? 'A' : 'B');
}
std::string openKeyText(CamelotKey k) {
  return fmt::format("{}{}", (k.number + 4) % 12 + 1, k.minor ? 'm' : 'd');
}

}  // namespace

KeyColor::Notation KeyColor::notation(std::string_view name) {
  for (size_t i = 0; i < kNotationNames.size(); ++i)
    if (kNotationNames[i] == name) return Notation(i);
  return Notation::standard;
}

std::string_view KeyColor::name(Notation n) {
  return kNotationNames[size_t(n)];
}

const std::array<std::pair<std::string_view, CamelotKey>, 34>& KeyColor::table() {
  static const std::array<std::pair<std::string_view, CamelotKey>, 34> t = {{
      {"abm", {1, true}},  {"g#m", {1, true}},  {"ebm", {2, true}},  {"d#m", {2, true}},
      {"bbm", {3, true}},  {"a#m", {3, true}},  {"fm", {4, true}},   {"cm", {5, true}},
      {"gm", {6, true}},   {"dm", {7, true}},   {"am", {8, true}},   {"em", {9, true}},
      {"bm", {10, true}},  {"f#m", {11, true}}, {"gbm", {11, true}}, {"dbm", {12, true}},
      {"c#m", {12, true}}, {"b", {1, false}},   {"f#", {2, false}},  {"gb", {2, false}},
      {"db", {3, false}},  {"c#", {3, false}},  {"ab", {4, false}},  {"g#", {4, false}},
      {"eb", {5, false}},  {"d#", {5, false}},  {"bb", {6, false}},  {"a#", {6, false}},
      {"f", {7, false}},   {"c", {8, false}},   {"g", {9, false}},   {"d", {10, false}},
      {"a", {11, false}},  {"e", {12, false}},
  }};
  return t;
}

std::optional<CamelotKey> KeyColor::camelot(std::string_view key) {
  const std::string k = lower(key);
  for (const auto& [name, pos] : table())
    if (name == k) return pos;
  if (auto w = wheelForm(k)) return w->first;
  return std::nullopt;
}

std::string KeyColor::label(std::string_view key, Notation notation) {
  if (key.empty()) return "";
  const auto k = camelot(key);
  if (!k) return std::string(key);
  switch (notation) {
    case Notation::standard:
      return standardName(*k);
    case Notation::camelot:
      return camelotText(*k);
    case Notation::openKey:
      return openKeyText(*k);
    case Notation::both:
      return standardName(*k) + "  \u00b7  " + camelotText(*k);
  }
  return std::string(key);
}

std::optional<KeyRgb> KeyColor::color(std::string_view key) {
  const auto k = camelot(key);
  return k ? color(*k) : std::nullopt;
}

std::optional<KeyRgb> KeyColor::color(CamelotKey key) {
  if (key.number < 1 || key.number > 12) return std::nullopt;
  // HSL round the wheel, 30° a step; neighbours on the wheel (keys that mix)
  // get neighbouring hues.
  const double h = (key.number - 1) * 30.0 / 360.0;
  const double s = 0.72, l = key.minor ? 0.64 : 0.46;
  const double q = l < 0.5 ? l * (1 + s) : l + s - l * s;
  const double p = 2 * l - q;
  auto channel = [&](double t) {
    t -= std::floor(t);
    double v = p;
    if (t < 1.0 / 6)
      v = p + (q - p) * 6 * t;
    else if (t < 0.5)
      v = q;
    else if (t < 2.0 / 3)
      v = p + (q - p) * (2.0 / 3 - t) * 6;
    return uint8_t(std::lround(std::clamp(v, 0.0, 1.0) * 255));
  };
  return KeyRgb{channel(h + 1.0 / 3), channel(h), channel(h - 1.0 / 3)};
}

std::string KeyColor::standardName(CamelotKey key) {
  if (key.number < 1 || key.number > 12) return "";
  return std::string(key.minor ? kMinorNames[key.number - 1] : kMajorNames[key.number - 1]);
}

std::string KeyColor::standardName(int pitchClass, bool minor) {
  return standardName(wheelOf(((pitchClass % 12) + 12) % 12, minor));
}

std::optional<std::string> KeyColor::standardName(std::string_view key) {
  const auto k = camelot(key);
  if (!k) return std::nullopt;
  return standardName(*k);
}

std::optional<std::pair<int, bool>> MusicKey::parse(std::string_view key) {
  const std::string k = lower(trim(key));
  if (k.empty()) return std::nullopt;
  // The 12-entry pitch-class table, by letter.
  static constexpr int kLetters[] = {9, 11, 0, 2, 4, 5, 7};  // a b c d e f g
  if (k[0] < 'a' || k[0] > 'g') return std::nullopt;
  int pc = kLetters[k[0] - 'a'];
  size_t i = 1;
  if (i < k.size() && (k[i] == '#' || k[i] == 'b')) {
    // "b" after the letter is a flat unless it is the whole rest ("bb" is B flat).
    pc += k[i] == '#' ? 1 : -1;
    ++i;
  }
  const std::string_view rest = std::string_view(k).substr(i);
  bool minor;
  if (rest.empty() || rest == "maj" || rest == "major")
    minor = false;
  else if (rest == "m" || rest == "min" || rest == "minor")
    minor = true;
  else
    return std::nullopt;
  return std::pair{(pc + 12) % 12, minor};
}

std::string MusicKey::transpose(std::string_view key, int semitones) {
  const int shift = ((semitones % 12) + 12) % 12;
  if (auto parsed = parse(key))
    return KeyColor::standardName((parsed->first + shift) % 12, parsed->second);
  if (auto w = wheelForm(trim(key))) {
    const CamelotKey moved = wheelOf((pitchClassOf(w->first) + shift) % 12, w->first.minor);
    return w->second ? openKeyText(moved) : camelotText(moved);
  }
  return std::string(key);
}

std::string tidyBPM(std::string_view text) {
  const std::string t(trim(text));
  if (t.empty()) return std::string(text);
  char* end = nullptr;
  const double v = std::strtod(t.c_str(), &end);
  if (end != t.c_str() + t.size() || !std::isfinite(v)) return std::string(text);
  if (v == std::floor(v) && std::abs(v) < 1e15) return fmt::format("{:.0f}", v);
  return fmt::format("{:.1f}", v);
}

}  // namespace orvel
