#include "core/library/classify.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "core/text/split.h"

namespace orvel::library {
namespace {

// What the words of one field say, as bits: each field is read once, word
// by word, and every rule then asks the bits (a library's worth of rows is
// classified at every load).
enum Says : uint32_t {
  kAcapella = 1u << 0,
  kInstrumental = 1u << 1,
  kRemix = 1u << 2,      // remix, rework, bootleg, mashup, refix, flip, vip, re-edit, dub mix
  kEdit = 1u << 3,       // "edit" not after "radio" or "re"
  kRadioEdit = 1u << 4,  // "radio edit"
  kStem = 1u << 5,
  kUnreleased = 1u << 6,
  kFx = 1u << 7,        // sfx, fx, foley, sound effect(s)
  kMix = 1u << 8,       // dj mix, mixtape, mix set, live set, podcast, radio show
  kOnlyLive = 1u << 9,  // the one word of the field is "live"
};

uint32_t wordSays(std::string_view w) {
  switch (w.size()) {
    case 2:
      if (w == "fx") return kFx;
      break;
    case 3:
      if (w == "sfx") return kFx;
      if (w == "vip") return kRemix;
      if (w == "wip") return kUnreleased;
      break;
    case 4:
      if (w == "stem") return kStem;
      if (w == "flip") return kRemix;
      break;
    case 5:
      if (w == "remix" || w == "refix") return kRemix;
      if (w == "stems") return kStem;
      if (w == "foley") return kFx;
      break;
    case 6:
      if (w == "rework" || w == "mashup") return kRemix;
      break;
    case 7:
      if (w == "bootleg") return kRemix;
      if (w == "mixtape" || w == "podcast") return kMix;
      break;
    case 8:
      if (w == "acapella" || w == "dubplate") return w[0] == 'a' ? kAcapella : kUnreleased;
      break;
    case 9:
      if (w == "acappella" || w == "accapella") return kAcapella;
      break;
    case 10:
      if (w == "unreleased") return kUnreleased;
      break;
    case 11:
      if (w == "forthcoming") return kUnreleased;
      break;
    case 12:
      if (w == "instrumental") return kInstrumental;
      break;
    default:
      break;
  }
  return 0;
}

uint32_t pairSays(std::string_view before, std::string_view w) {
  uint32_t says = 0;
  if (w == "mix") says = before == "dj" ? kMix : before == "dub" ? kRemix : 0u;
  if (w == "set" && (before == "mix" || before == "live")) says = kMix;
  if (w == "show" && before == "radio") says = kMix;
  if ((w == "capella" || w == "cappella") && before == "a") says = kAcapella;
  if ((w == "effect" || w == "effects") && before == "sound") says = kFx;
  if (w == "edit") says = before == "radio" ? kRadioEdit : before == "re" ? kRemix : kEdit;
  return says;
}

// A short text lower-cased (ASCII letters) on the stack, for the phrase
// tests the word bits cannot make.
class Lowered {
 public:
  explicit Lowered(std::string_view text) {
    const size_t n = std::min(text.size(), sizeof(buffer_));
    for (size_t i = 0; i < n; ++i) {
      const char c = text[i];
      buffer_[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    text_ = {buffer_, n};
  }
  Lowered(const Lowered&) = delete;
  Lowered& operator=(const Lowered&) = delete;
  bool contains(std::string_view part) const { return text_.find(part) != std::string_view::npos; }
  bool endsWith(std::string_view suffix) const { return trim(text_).ends_with(suffix); }

 private:
  char buffer_[256];
  std::string_view text_;
};

// A field's words: runs of ASCII letters and digits, lower-cased.
uint32_t fieldSays(std::string_view text) {
  uint32_t says = 0;
  char word[32];
  char before[32];
  size_t beforeSize = 0, words = 0;
  size_t i = 0;
  while (i < text.size()) {
    auto wordChar = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    while (i < text.size() && !wordChar(text[i])) ++i;
    size_t n = 0;
    bool tooLong = false;
    while (i < text.size() && wordChar(text[i])) {
      const char c = text[i++];
      if (n < sizeof(word))
        word[n++] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
      else
        tooLong = true;
    }
    if (n == 0) break;
    ++words;
    const std::string_view w(word, tooLong ? 0 : n);
    says |= wordSays(w) | pairSays(std::string_view(before, beforeSize), w);
    std::copy(word, word + n, before);
    beforeSize = tooLong ? 0 : n;
  }
  if (words == 1 && std::string_view(before, beforeSize) == "live") says |= kOnlyLive;
  return says;
}

// Whether `text` holds `part` (lower-case ASCII), ignoring the case of
// ASCII letters: for paths, which are long and looked at once.
bool containsFolded(std::string_view text, std::string_view part) {
  if (part.size() > text.size()) return false;
  for (size_t i = 0; i + part.size() <= text.size(); ++i) {
    size_t k = 0;
    while (k < part.size()) {
      char c = text[i + k];
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
      if (c != part[k]) break;
      ++k;
    }
    if (k == part.size()) return true;
  }
  return false;
}

bool endsWithFolded(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() &&
         containsFolded(text.substr(text.size() - suffix.size()), suffix);
}

bool isVideoExtension(std::string_view ext) {
  static constexpr std::array<std::string_view, 10> kVideo{"mp4", "m4v", "mov",  "mkv", "webm",
                                                           "avi", "mpg", "mpeg", "wmv", "flv"};
  return std::find(kVideo.begin(), kVideo.end(), ext) != kVideo.end();
}

}  // namespace

std::string_view contentName(Content content) {
  return kContentNames[static_cast<size_t>(content)];
}

std::optional<Content> contentNamed(std::string_view name) {
  for (size_t i = 0; i < kContentNames.size(); ++i) {
    const std::string_view n = kContentNames[i];
    if (n.size() == name.size() && std::equal(n.begin(), n.end(), name.begin(), [](char a, char b) {
          return (a | 0x20) == (b | 0x20);
        }))
      return static_cast<Content>(i);
  }
  return std::nullopt;
}

std::string_view categoryKey(Category category) {
  return kCategoryKeys[static_cast<size_t>(category)];
}

std::optional<Category> categoryNamed(std::string_view key) {
  for (size_t i = 0; i < kCategoryKeys.size(); ++i)
    if (kCategoryKeys[i] == key) return static_cast<Category>(i);
  return std::nullopt;
}

Content TrackFacts::content() const {
  if (video) return Content::videos;
  if (sound) return Content::sounds;
  if (mix) return Content::mixes;
  return Content::music;
}

TrackFacts factsOf(const TrackRow& row, bool hasIsrc) {
  TrackFacts f;
  const std::string_view path = row.path();
  const std::string ext = extensionOf(path);
  const uint32_t title = fieldSays(row.title()), comment = fieldSays(row.comment()),
                 grouping = fieldSays(row.grouping()), genre = fieldSays(row.genre());
  const uint32_t texts = title | comment | grouping;

  f.video = isVideoExtension(ext) || row.hasVideo == 1;
  const bool shortClip = row.durationMs && *row.durationMs > 0 && *row.durationMs < 45'000;
  f.sound = !f.video && (row.isProduction || shortClip);
  const bool longPlay = row.durationMs && *row.durationMs >= 15 * 60'000;
  f.mix = !f.video && !f.sound && (longPlay || ((genre | grouping) & kMix));

  f.stem = ((title | grouping | genre) & kStem) || endsWithFolded(path, ".stem.mp4");
  f.uncompressed = ext == "wav" || ext == "aif" || ext == "aiff" || ext == "aifc";
  f.lossless = f.uncompressed || ext == "flac" || ext == "alac" ||
               (ext == "m4a" && row.bitrateKbps && *row.bitrateKbps >= 500);

  f.acapella = texts & kAcapella;
  const Lowered t(row.title()), album(row.album());
  f.instrumental = (texts & kInstrumental) || t.contains("(inst)");
  f.soundFx = ((genre | grouping) & kFx) || containsFolded(path, "/sfx/");
  // "Radio Edit" alone is the record's own version; any other edit is a DJ's.
  f.remix = (title & kRemix) || (title & kEdit);

  f.live = t.contains("(live") || t.contains("[live") || t.contains("live at ") ||
           t.contains("live from ") || t.contains("live in ") || t.endsWith("- live") ||
           album.contains("live at ") || album.contains("live in ") || album.contains("(live)") ||
           album.contains("unplugged") || (genre & kOnlyLive);

  f.unreleased = texts & kUnreleased;
  f.released = !f.unreleased && (hasIsrc || (!trim(row.label()).empty() && !row.year().empty()));
  return f;
}

uint32_t categoryMask(const TrackRow& row, const TrackFacts& f) {
  uint32_t mask = bit(Category::allTracks);
  auto set = [&](Category c, bool on) {
    if (on) mask |= bit(c);
  };
  const Content content = f.content();
  set(Category::music, content == Content::music);
  set(Category::mixes, content == Content::mixes);
  set(Category::sounds, content == Content::sounds);
  set(Category::videos, content == Content::videos);
  set(Category::missing, row.missing);
  set(Category::production, row.isProduction);
  set(Category::stems, f.stem);
  set(Category::uncompressed, f.uncompressed);
  set(Category::masters, row.master);
  set(Category::acapellas, f.acapella);
  set(Category::instrumentals, f.instrumental);
  set(Category::soundfx, f.soundFx);
  set(Category::remixes, f.remix);
  set(Category::live, f.live);
  set(Category::unreleased, f.unreleased);
  set(Category::released, f.released);
  set(Category::disliked, row.disliked);
  set(Category::loved, row.loved);
  const std::string_view artist = trim(row.artist());
  set(Category::noArtist, artist.empty() || artist == "Unknown Artist");
  const std::string_view album = trim(row.album());
  set(Category::noAlbum, album.empty() || album == "Unknown Album");
  set(Category::noYear, trim(row.year()).empty());
  set(Category::noKey, trim(row.key()).empty());
  set(Category::noBPM, !row.bpm || *row.bpm <= 0);
  return mask;
}

}  // namespace orvel::library
