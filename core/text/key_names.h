// Musical key names, shown in the notation the user picked, through one
// table from key names to Camelot positions; moving a key by semitones; and
// tidying typed BPM text. Plain functions over text: nothing here fails
// loudly, a name that cannot be read comes back as it was given.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace orvel {

// A position on the Camelot wheel: 1…12, A (minor) or B (major).
struct CamelotKey {
  int number = 0;
  bool minor = false;
  bool operator==(const CamelotKey&) const = default;
};

struct KeyRgb {
  uint8_t r = 0, g = 0, b = 0;
  bool operator==(const KeyRgb&) const = default;
};

class KeyColor {
 public:
  KeyColor() = delete;

  enum class Notation { standard, camelot, openKey, both };
  // The stored names, in menu order: "standard", "camelot", "openKey", "both".
  static constexpr std::array<std::string_view, 4> kNotationNames = {"standard", "camelot",
                                                                     "openKey", "both"};
  // A stored notation name; anything else (or nothing) reads as standard.
  static Notation notation(std::string_view name);
  static std::string_view name(Notation notation);

  // The 34 lower-case musical names and their positions ("abm" → 1A, "c" → 8B).
  static const std::array<std::pair<std::string_view, CamelotKey>, 34>& table();

  // The key's position: a musical name from the table in any case, or a key
  // already written in Camelot ("8A") or Open Key ("1m", "1d") form. Anything
  // else, including spellings such as "Cb" that the table leaves out: none.
  static std::optional<CamelotKey> camelot(std::string_view key);

  // The key in the given notation; "" for an empty key, and a key that
  // cannot be placed is shown as typed.
  static std::string label(std::string_view key, Notation notation);

  // One hue per wheel number, lighter for minor (A) and deeper for major (B).
  static std::optional<KeyRgb> color(std::string_view key);
  static std::optional<KeyRgb> color(CamelotKey key);

  // The canonical musical name of a wheel position ("Am", "F#", "Db").
  static std::string standardName(CamelotKey key);
  // …of a pitch class (C = 0 … B = 11) and mode.
  static std::string standardName(int pitchClass, bool minor);
  // …of any readable key; none when it cannot be placed.
  static std::optional<std::string> standardName(std::string_view key);
};

class MusicKey {
 public:
  MusicKey() = delete;
  // Moves a key by semitones (wrapping), kept in the form it was written in:
  // a musical name stays one ("Am" + 3 → "Cm"), a Camelot or Open Key form
  // stays in that form. A key that cannot be read comes back unchanged.
  static std::string transpose(std::string_view key, int semitones);
  // The pitch class (C = 0) and mode of a musical name; none otherwise.
  static std::optional<std::pair<int, bool>> parse(std::string_view key);
};

// Typed BPM text made tidy: white space trimmed; a whole number written
// without decimals ("128.0" → "128"), any other number with one ("127.46" →
// "127.5"); text that is not a number is returned exactly as given.
std::string tidyBPM(std::string_view text);

}  // namespace orvel
