#include "core/library/classify.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "core/text/split.h"

namespace orvel::library {
namespace {

// A field as the rules see it: lower-cased (ASCII letters), and split once
// into its words, runs of ASCII letters and digits. Kept on the stack for the
// short texts fields are (a library's worth of rows is classified at every
// load), on the heap for the rest; words past the 48th are not looked at.
class Words {
 public:
  explicit Words(std::string_view text) {
    char* out = text.size() <= sizeof(small_) ? small_ : (big_.resize(text.size()), big_.data());
    for (size_t i = 0; i < text.size(); ++i) {
      const char c = text[i];
      out[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    text_ = {out, text.size()};
    size_t i = 0;
    while (i < text_.size() && count_ < words_.size()) {
      while (i < text_.size() && !wordChar(text_[i])) ++i;
      const size_t start = i;
      while (i < text_.size() && wordChar(text_[i])) ++i;
      if (i == start) break;
      words_[count_++] = text_.substr(start, i - start);
    }
  }
  Words(const Words&) = delete;
  Words& operator=(const Words&) = delete;

  std::string_view lowered() const { return text_; }
  bool contains(std::string_view part) const { return text_.find(part) != std::string_view::npos; }
  bool has(std::string_view word) const { return count(word) > 0; }
  // `a` with `b` as the very next word.
  bool hasPair(std::string_view a, std::string_view b) const {
    for (size_t i = 1; i < count_; ++i)
      if (words_[i - 1] == a && words_[i] == b) return true;
    return false;
  }
  size_t count(std::string_view word) const {
    size_t n = 0;
    for (size_t i = 0; i < count_; ++i) n += words_[i] == word ? 1 : 0;
    return n;
  }
  bool only(std::string_view word) const { return count_ == 1 && words_[0] == word; }

 private:
  static bool wordChar(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

  char small_[160];
  std::string big_;
  std::string_view text_;
  std::array<std::string_view, 48> words_{};
  size_t count_ = 0;
};

bool isVideoExtension(std::string_view ext) {
  static constexpr std::array<std::string_view, 10> kVideo{"mp4", "m4v", "mov", "mkv", "webm",
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
    if (n.size() == name.size() &&
        std::equal(n.begin(), n.end(), name.begin(), [](char a, char b) {
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
  const Words title(row.title()), comment(row.comment()), grouping(row.grouping()),
      genre(row.genre());
  auto anyText = [&](auto&& test) { return test(title) || test(comment) || test(grouping); };

  f.video = isVideoExtension(ext) || row.hasVideo == 1;
  const bool shortClip = row.durationMs && *row.durationMs > 0 && *row.durationMs < 45'000;
  f.sound = !f.video && (row.isProduction || shortClip);
  const bool longPlay = row.durationMs && *row.durationMs >= 15 * 60'000;
  auto saysMix = [](const Words& w) {
    return w.hasPair("dj", "mix") || w.has("mixtape") || w.hasPair("mix", "set") ||
           w.hasPair("live", "set") || w.has("podcast") || w.hasPair("radio", "show");
  };
  f.mix = !f.video && !f.sound && (longPlay || saysMix(genre) || saysMix(grouping));

  auto saysStem = [](const Words& w) { return w.has("stem") || w.has("stems"); };
  const Words file(lastPathComponent(path)), folders(path);
  f.stem = saysStem(title) || saysStem(grouping) || saysStem(genre) ||
           file.lowered().ends_with(".stem.mp4");
  f.uncompressed = ext == "wav" || ext == "aif" || ext == "aiff" || ext == "aifc";
  f.lossless = f.uncompressed || ext == "flac" || ext == "alac" ||
               (ext == "m4a" && row.bitrateKbps && *row.bitrateKbps >= 500);

  f.acapella = anyText([](const Words& w) {
    return w.has("acapella") || w.has("acappella") || w.has("accapella") ||
           w.hasPair("a", "capella") || w.hasPair("a", "cappella");
  });
  f.instrumental = anyText([](const Words& w) { return w.has("instrumental"); }) ||
                   title.contains("(inst)");
  auto saysFx = [](const Words& w) {
    return w.has("sfx") || w.has("fx") || w.hasPair("sound", "effect") ||
           w.hasPair("sound", "effects") || w.has("foley");
  };
  f.soundFx = saysFx(genre) || saysFx(grouping) || folders.contains("/sfx/");

  const bool radioEditOnly = title.hasPair("radio", "edit") && title.count("edit") == 1;
  f.remix = title.has("remix") || (title.has("edit") && !radioEditOnly) || title.has("rework") ||
            title.has("bootleg") || title.has("mashup") || title.has("refix") ||
            title.hasPair("re", "edit") || title.has("flip") || title.has("vip") ||
            title.hasPair("dub", "mix");

  const Words album(row.album());
  const std::string_view t = trim(title.lowered());
  f.live = title.contains("(live") || title.contains("[live") || title.contains("live at ") ||
           title.contains("live from ") || title.contains("live in ") || t.ends_with("- live") ||
           album.contains("live at ") || album.contains("live in ") || album.contains("(live)") ||
           album.contains("unplugged") || genre.only("live");

  f.unreleased = anyText([](const Words& w) {
    return w.has("unreleased") || w.has("dubplate") || w.has("forthcoming") || w.has("wip");
  });
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
