#include "core/import/tag_reader.h"

#include <aifffile.h>
#include <commentsframe.h>
#include <fcntl.h>
#include <flacfile.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <id3v2tag.h>
#include <mp4file.h>
#include <mpegfile.h>
#include <oggflacfile.h>
#include <opusfile.h>
#include <tdebuglistener.h>
#include <tpropertymap.h>
#include <unistd.h>
#include <vorbisfile.h>
#include <wavfile.h>
#include <xiphcomment.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <fstream>
#include <memory>

#include "core/formats/id3_reader.h"
#include "core/text/path_norm.h"
#include "core/text/split.h"

namespace orvel::Importer {
namespace {

// TagLib reports broken frames on stderr in some builds; a broken tag is an
// ordinary outcome here, so it stays quiet.
class QuietTagLib : public TagLib::DebugListener {
 public:
  void printMessage(const TagLib::String&) override {}
};

void silenceTagLib() {
  static QuietTagLib quiet;
  static const bool once = (TagLib::setDebugListener(&quiet), true);
  (void)once;
}

enum class Container { unknown, mpeg, mp4, flac, ogg, wav, aiff };

Container byExtension(std::string_view ext) {
  if (ext == "mp3" || ext == "aac") return Container::mpeg;
  if (ext == "m4a" || ext == "alac") return Container::mp4;
  if (ext == "flac") return Container::flac;
  if (ext == "ogg") return Container::ogg;
  if (ext == "wav") return Container::wav;
  if (ext == "aiff" || ext == "aif" || ext == "aifc") return Container::aiff;
  return Container::unknown;
}

// The container the first bytes announce. TagLib's MPEG reader takes almost
// anything for MPEG (it hunts for a frame sync), so the bytes decide first
// and the extension only when they say nothing.
Container sniff(const std::filesystem::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return Container::unknown;
  std::array<char, 12> head{};
  auto readAt = [&](off_t at) {
    return ::pread(fd, head.data(), head.size(), at) == static_cast<ssize_t>(head.size());
  };
  const std::string_view h(head.data(), head.size());
  bool tagged = false;
  bool ok = readAt(0);
  if (ok && h.starts_with("ID3")) {
    // Whatever follows the tag: usually MPEG audio, now and then FLAC.
    const auto b = [&](size_t i) { return static_cast<unsigned char>(h[i]) & 0x7F; };
    off_t skip = 10 + (b(6) << 21 | b(7) << 14 | b(8) << 7 | b(9));
    if (static_cast<unsigned char>(h[5]) & 0x10) skip += 10;
    tagged = true;
    ok = readAt(skip);
    if (!ok) head.fill(0);
  }
  ::close(fd);
  if (!ok && !tagged) return Container::unknown;
  if (h.starts_with("fLaC")) return Container::flac;
  if (tagged) return Container::mpeg;
  if (h.starts_with("OggS")) return Container::ogg;
  if (h.substr(4, 4) == "ftyp") return Container::mp4;
  if (h.starts_with("RIFF") && h.substr(8, 4) == "WAVE") return Container::wav;
  if (h.starts_with("FORM") && (h.substr(8, 4) == "AIFF" || h.substr(8, 4) == "AIFC"))
    return Container::aiff;
  const auto b0 = static_cast<unsigned char>(h[0]), b1 = static_cast<unsigned char>(h[1]);
  if (b0 == 0xFF && (b1 & 0xE0) == 0xE0) return Container::mpeg;
  return Container::unknown;
}

std::string utf8(const TagLib::String& s) {
  return s.to8Bit(true);
}

std::optional<std::string> clean(const TagLib::String& s, size_t maxBytes = 1024) {
  if (s.isEmpty()) return std::nullopt;
  return cleanTagText(utf8(s), maxBytes);
}

// The first of `candidates` that gives a value.
template <typename F>
std::optional<std::string> firstOf(std::initializer_list<const char*> candidates, F&& read) {
  for (const char* c : candidates)
    if (auto v = read(c)) return v;
  return std::nullopt;
}

template <typename F>
std::optional<std::string> firstYear(std::initializer_list<const char*> candidates, F&& read) {
  for (const char* c : candidates)
    if (auto v = read(c))
      if (auto y = yearOnly(*v)) return y;
  return std::nullopt;
}

std::optional<double> tempoFrom(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  double v = 0;
  const auto* end = text->data() + text->size();
  if (std::from_chars(text->data(), end, v).ec != std::errc{}) return std::nullopt;
  // Anything outside this is a mistyped tag, not a tempo a DJ could use.
  if (!std::isfinite(v) || v < 20.0 || v > 999.0) return std::nullopt;
  return v;
}

std::optional<std::string> keyFrom(const std::optional<std::string>& text) {
  if (!text || text->size() > 16) return std::nullopt;
  return text;
}

// ---- ID3v2 (MP3, AAC, WAV, AIFF, and the odd FLAC) -------------------------

std::optional<std::string> id3Text(const TagLib::ID3v2::Tag& tag, const char* id) {
  const auto& frames = tag.frameList(id);
  for (const auto* f : frames)
    if (auto v = clean(f->toString())) return v;
  return std::nullopt;
}

// iTunes stores its loudness and gapless data in COMM frames with these
// descriptions; they are not the user's comment.
bool isMachineComment(const TagLib::String& description) {
  const std::string d = utf8(description);
  return d.starts_with("iTun") || d == "Songs-DB_Custom";
}

std::optional<std::string> id3Comment(const TagLib::ID3v2::Tag& tag) {
  std::optional<std::string> described;
  for (const auto* f : tag.frameList("COMM")) {
    const auto* c = dynamic_cast<const TagLib::ID3v2::CommentsFrame*>(f);
    if (!c || isMachineComment(c->description())) continue;
    auto text = clean(c->text(), 4096);
    if (!text) continue;
    if (c->description().isEmpty()) return text;
    if (!described) described = text;
  }
  return described;
}

void readID3(const TagLib::ID3v2::Tag* tag, Tags& t) {
  if (!tag || tag->isEmpty()) return;
  auto text = [&](const char* id) { return id3Text(*tag, id); };
  if (!t.year) t.year = firstYear({"TDRC", "TYER", "TDRL", "TDOR"}, text);
  if (!t.comment) t.comment = id3Comment(*tag);
  // iTunes 12.5 moved its grouping to GRP1; older files keep it in TIT1.
  if (!t.grouping) t.grouping = firstOf({"TIT1", "GRP1"}, text);
  if (!t.publisher) t.publisher = text("TPUB");
  if (!t.bpm) t.bpm = tempoFrom(text("TBPM"));
  if (!t.key) t.key = keyFrom(text("TKEY"));
}

// ---- MP4 --------------------------------------------------------------------

std::optional<std::string> mp4Text(const TagLib::MP4::Tag& tag, const char* name) {
  if (!tag.contains(name)) return std::nullopt;
  const auto item = tag.item(name);
  for (const auto& s : item.toStringList())
    if (auto v = clean(s, 4096)) return v;
  return std::nullopt;
}

void readMP4(const TagLib::MP4::Tag* tag, Tags& t) {
  if (!tag || tag->isEmpty()) return;
  auto text = [&](const char* name) { return mp4Text(*tag, name); };
  t.year = firstYear({"\251day"}, text);
  t.comment = text("\251cmt");
  t.grouping = text("\251grp");
  t.publisher =
      firstOf({"----:com.apple.iTunes:LABEL", "----:com.apple.iTunes:publisher", "\251pub"}, text);
  if (tag->contains("tmpo")) {
    const int tmpo = tag->item("tmpo").toInt();
    t.bpm = tempoFrom(std::to_string(tmpo));
  }
  if (!t.bpm) t.bpm = tempoFrom(text("----:com.apple.iTunes:BPM"));
  t.key = keyFrom(firstOf({"----:com.apple.iTunes:initialkey", "----:com.apple.iTunes:KEY"}, text));
}

// ---- Vorbis comments (FLAC, Ogg) ----------------------------------------------

void readXiph(const TagLib::Ogg::XiphComment* tag, Tags& t) {
  if (!tag || tag->isEmpty()) return;
  const auto& fields = tag->fieldListMap();
  auto text = [&](const char* name) -> std::optional<std::string> {
    const auto it = fields.find(name);
    if (it == fields.end()) return std::nullopt;
    for (const auto& s : it->second)
      if (auto v = clean(s, 4096)) return v;
    return std::nullopt;
  };
  if (!t.year) t.year = firstYear({"DATE", "YEAR", "ORIGINALDATE", "ORIGINALYEAR"}, text);
  if (!t.comment) t.comment = firstOf({"COMMENT", "DESCRIPTION"}, text);
  if (!t.grouping) t.grouping = firstOf({"GROUPING", "CONTENTGROUP"}, text);
  if (!t.publisher) t.publisher = firstOf({"LABEL", "PUBLISHER", "ORGANIZATION"}, text);
  if (!t.bpm) t.bpm = tempoFrom(firstOf({"BPM", "TEMPO"}, text));
  if (!t.key) t.key = keyFrom(firstOf({"INITIALKEY", "KEY"}, text));
}

// ---- common to every container ------------------------------------------------

// "3/12" → (3, 12); "7" → (7, none).
std::pair<std::optional<int64_t>, std::optional<int64_t>> numberOf(
    const std::optional<std::string>& text) {
  if (!text) return {};
  auto whole = [](std::string_view part) -> std::optional<int64_t> {
    part = trim(part);
    int64_t v = 0;
    const auto [end, ec] = std::from_chars(part.data(), part.data() + part.size(), v);
    if (ec != std::errc() || end == part.data() || v <= 0 || v > 9999) return std::nullopt;
    return v;
  };
  const size_t slash = text->find('/');
  if (slash == std::string::npos) return {whole(*text), std::nullopt};
  return {whole(std::string_view(*text).substr(0, slash)),
          whole(std::string_view(*text).substr(slash + 1))};
}

// Fills what `t` still lacks from TagLib's unified property names; the
// values of a key with several (artists, composers) are joined.
void fillFromProperties(const TagLib::PropertyMap& props, Tags& t) {
  auto values = [&](const char* key) {
    std::vector<std::string> out;
    const auto it = props.find(key);
    if (it == props.end()) return out;
    for (const auto& v : it->second)
      if (auto c = clean(v))
        if (std::find(out.begin(), out.end(), *c) == out.end()) out.push_back(*c);
    return out;
  };
  auto first = [&](const char* key) -> std::optional<std::string> {
    auto v = values(key);
    if (v.empty()) return std::nullopt;
    return v.front();
  };
  auto joined = [&](const char* key) -> std::optional<std::string> {
    const auto v = values(key);
    if (v.empty()) return std::nullopt;
    return cleanTagText(fmt::format("{}", fmt::join(v, ", ")));
  };
  auto fill = [](std::optional<std::string>& field, std::optional<std::string> value) {
    if (!field) field = std::move(value);
  };
  fill(t.title, first("TITLE"));
  fill(t.album, first("ALBUM"));
  fill(t.genre, first("GENRE"));
  if (!t.year) t.year = firstYear({"DATE", "ORIGINALDATE"}, first);
  fill(t.comment, first("COMMENT"));
  fill(t.grouping, first("CONTENTGROUP"));
  fill(t.grouping, first("GROUPING"));
  fill(t.publisher, first("LABEL"));
  if (!t.bpm) t.bpm = tempoFrom(first("BPM"));
  if (!t.key) t.key = keyFrom(first("INITIALKEY"));
  fill(t.albumArtist, joined("ALBUMARTIST"));
  fill(t.composer, joined("COMPOSER"));
  fill(t.sortTitle, first("TITLESORT"));
  fill(t.sortArtist, first("ARTISTSORT"));
  fill(t.sortAlbum, first("ALBUMSORT"));
  fill(t.sortAlbumArtist, first("ALBUMARTISTSORT"));
  fill(t.sortComposer, first("COMPOSERSORT"));
  const auto [track, tracks] = numberOf(first("TRACKNUMBER"));
  if (!t.trackNumber) t.trackNumber = track;
  if (!t.trackCount) t.trackCount = tracks ? tracks : numberOf(first("TRACKTOTAL")).first;
  const auto [disc, discs] = numberOf(first("DISCNUMBER"));
  if (!t.discNumber) t.discNumber = disc;
  if (!t.discCount) t.discCount = discs ? discs : numberOf(first("DISCTOTAL")).first;
  if (!t.compilation)
    if (const auto c = first("COMPILATION")) t.compilation = *c != "0" && *c != "false";
  // Every artist, where TagLib's generic field gives only the first.
  if (const auto artists = joined("ARTIST"); artists && (!t.artist || values("ARTIST").size() > 1))
    t.artist = artists;
}

void readCommon(const TagLib::File& file, Tags& t) {
  if (const TagLib::Tag* tag = file.tag()) {
    t.title = clean(tag->title());
    t.artist = clean(tag->artist());
    t.album = clean(tag->album());
    t.genre = clean(tag->genre());
    // ID3v1, APE and RIFF INFO only have these generic fields.
    if (!t.year && tag->year() > 0) t.year = yearOnly(std::to_string(tag->year()));
    if (!t.comment) t.comment = clean(tag->comment(), 4096);
  }
  fillFromProperties(file.properties(), t);
  if (const auto* p = file.audioProperties()) {
    if (p->lengthInMilliseconds() > 0) t.durationMs = p->lengthInMilliseconds();
    if (p->bitrate() > 0) t.bitrateKbps = p->bitrate();
    if (p->sampleRate() > 0) t.sampleRateHz = p->sampleRate();
  }
}

// TagLib reads the ID3 tag of a raw AAC (ADTS) stream but not its audio
// properties; the frame headers give them. Walks the headers only.
void readADTS(const std::filesystem::path& file, Tags& t) {
  static constexpr std::array<int, 13> kRates{96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                              22050, 16000, 12000, 11025, 8000,  7350};
  std::ifstream in(file, std::ios::binary);
  std::array<unsigned char, 10> h{};
  auto readAt = [&](std::streamoff at, size_t n) {
    in.clear();
    in.seekg(at);
    return static_cast<bool>(
        in.read(reinterpret_cast<char*>(h.data()), static_cast<std::streamsize>(n)));
  };
  std::streamoff at = 0;
  if (readAt(0, 10) && h[0] == 'I' && h[1] == 'D' && h[2] == '3') {
    at = 10 + ((h[6] & 0x7F) << 21 | (h[7] & 0x7F) << 14 | (h[8] & 0x7F) << 7 | (h[9] & 0x7F));
    if (h[5] & 0x10) at += 10;  // footer
  }
  const std::streamoff audioStart = at;
  int rate = 0;
  int64_t samples = 0;
  while (readAt(at, 7) && h[0] == 0xFF && (h[1] & 0xF6) == 0xF0) {
    const int rateIndex = (h[2] >> 2) & 0x0F;
    const int length = ((h[3] & 0x03) << 11) | (h[4] << 3) | (h[5] >> 5);
    if (rateIndex >= static_cast<int>(kRates.size()) || length < 7) break;
    rate = kRates[static_cast<size_t>(rateIndex)];
    samples += 1024 * ((h[6] & 0x03) + 1);
    at += length;
  }
  if (rate == 0 || samples == 0) return;
  t.sampleRateHz = rate;
  t.durationMs = samples * 1000 / rate;
  if (*t.durationMs > 0) t.bitrateKbps = (at - audioStart) * 8 / *t.durationMs;
}

constexpr auto kStyle = TagLib::AudioProperties::Average;

// Opens the file as `kind` and reads it; false when TagLib does not take it.
bool readAs(Container kind, const char* path, Tags& t) {
  switch (kind) {
    case Container::mpeg: {
      TagLib::MPEG::File f(path, true, kStyle);
      if (!f.isValid()) {
        // TagLib takes an ADTS stream without an ID3 tag for nothing at all.
        Tags adts;
        readADTS(path, adts);
        if (!adts.durationMs) return false;
        t = adts;
        return true;
      }
      readID3(f.ID3v2Tag(), t);
      readCommon(f, t);
      if (!t.durationMs) readADTS(path, t);
      return true;
    }
    case Container::mp4: {
      TagLib::MP4::File f(path, true, kStyle);
      if (!f.isValid()) return false;
      readMP4(f.tag(), t);
      readCommon(f, t);
      return true;
    }
    case Container::flac: {
      TagLib::FLAC::File f(path, true, kStyle);
      if (!f.isValid()) return false;
      readXiph(f.xiphComment(), t);
      if (f.hasID3v2Tag()) readID3(f.ID3v2Tag(), t);
      readCommon(f, t);
      return true;
    }
    case Container::ogg: {
      // ".ogg" holds Vorbis, Opus or FLAC; TagLib has a reader for each.
      if (TagLib::Ogg::Vorbis::File f(path, true, kStyle); f.isValid()) {
        readXiph(f.tag(), t);
        readCommon(f, t);
        return true;
      }
      if (TagLib::Ogg::Opus::File f(path, true, kStyle); f.isValid()) {
        readXiph(f.tag(), t);
        readCommon(f, t);
        return true;
      }
      TagLib::Ogg::FLAC::File f(path, true, kStyle);
      if (!f.isValid()) return false;
      readXiph(f.tag(), t);
      readCommon(f, t);
      return true;
    }
    case Container::wav: {
      TagLib::RIFF::WAV::File f(path, true, kStyle);
      if (!f.isValid()) return false;
      if (f.hasID3v2Tag()) readID3(f.ID3v2Tag(), t);
      readCommon(f, t);
      return true;
    }
    case Container::aiff: {
      TagLib::RIFF::AIFF::File f(path, true, kStyle);
      if (!f.isValid()) return false;
      if (f.hasID3v2Tag()) readID3(f.tag(), t);
      readCommon(f, t);
      return true;
    }
    case Container::unknown:
      break;
  }
  return false;
}

std::optional<std::string> fileTypeOf(Container kind, std::string_view ext) {
  switch (kind) {
    case Container::mpeg:
      // An ADTS stream is MPEG to TagLib, but it is not an MP3.
      if (ext == "aac") return std::nullopt;
      return "mp3";
    case Container::mp4:
      return "quicktime";
    case Container::wav:
      return "wave";
    case Container::aiff:
      return "aiff";
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> yearOnly(std::string_view text) {
  if (text.empty()) return std::nullopt;
  size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  if (digits == 4) return std::string(text.substr(0, 4));
  if (text.size() == 4) return std::string(text);
  return std::nullopt;
}

std::optional<std::string> cleanTagText(std::string_view text, size_t maxBytes) {
  if (!isValidUtf8(text)) return std::nullopt;
  std::string out;
  out.reserve(std::min(text.size(), maxBytes));
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    // A NUL separates values in ID3v2.4 text frames; other controls are noise.
    if (c == 0 || c == '\t' || c == '\n' || c == '\r')
      out += ' ';
    else if (c >= 0x20 && c != 0x7F)
      out += ch;
  }
  const std::string_view kept = trim(utf8Prefix(trim(out), maxBytes));
  if (kept.empty()) return std::nullopt;
  return std::string(kept);
}

// TagLib's table from ID3 frame ids to its property names, which it keeps
// for its frame classes.
struct FrameKeys : TagLib::ID3v2::Frame {
  using TagLib::ID3v2::Frame::frameIDToKey;
};

// TagLib 1.13 loses the last frame of an ID3v2.4 tag with an extended
// header; the tag is read once more by our own reader, which fills what is
// still missing.
void fillFromOwnID3(const std::filesystem::path& file, Tags& t) {
  std::array<char, 6> head{};
  if (!std::ifstream(file, std::ios::binary).read(head.data(), head.size())) return;
  if (std::string_view(head.data(), 3) != "ID3" || !(head[5] & 0x40)) return;
  const auto frames = ID3Reader::textFrames(file);
  if (!frames) return;
  TagLib::PropertyMap props;
  for (const auto& f : *frames) {
    const TagLib::String key = f.id == "COMM"
                                   ? TagLib::String("COMMENT")
                                   : FrameKeys::frameIDToKey(TagLib::ByteVector(f.id.c_str()));
    if (key.isEmpty()) continue;
    TagLib::StringList list;
    for (const auto& v : f.values) list.append(TagLib::String(v, TagLib::String::UTF8));
    props.insert(key, list);
  }
  fillFromProperties(props, t);
}

Tags readTags(const std::filesystem::path& file) {
  silenceTagLib();
  Tags t;
  const std::string ext = extensionOf(file.native());
  const Container declared = byExtension(ext);
  // Only TagLib's MPEG reader needs the bytes checked first; the others
  // refuse a file that is not theirs, and the bytes are looked at then.
  const Container sniffed = declared == Container::mpeg ? sniff(file) : Container::unknown;
  Container used = sniffed != Container::unknown ? sniffed : declared;
  try {
    t.readable = readAs(used, file.c_str(), t);
    if (!t.readable) {
      const Container other = used != declared ? declared : sniff(file);
      if (other != used && other != Container::unknown) {
        used = other;
        t = Tags{};
        t.readable = readAs(used, file.c_str(), t);
      }
    }
  } catch (const std::exception&) {
    // TagLib does not throw by design, but a bad_alloc from a hostile frame
    // size must not end an import of thousands of files.
    t = Tags{};
  }
  if (t.readable) {
    t.fileType = fileTypeOf(used, ext);
    fillFromOwnID3(file, t);
  }
  if (!t.bitrateKbps && t.durationMs && *t.durationMs > 0) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(file, ec);
    if (!ec && size > 0)
      t.bitrateKbps =
          std::llround(static_cast<double>(size) * 8.0 / static_cast<double>(*t.durationMs));
  }
  return t;
}

std::optional<int64_t> bitrate(const std::filesystem::path& file) {
  return readTags(file).bitrateKbps;
}

}  // namespace orvel::Importer
