#include "bench/sample_catalogue.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <random>

namespace orvel::sample {
namespace {

constexpr std::array kFirst = {"Kalo",       "Mira",        "Dense", "Owen",  "Lena",
                               "Theo",       "Ada",         "Niko",  "Sable", "Juno",
                               "Rafa",       "Ines",        "Tomas", "Yuki",  "Bj\xC3\xB6rn",
                               "Zo\xC3\xAB", "Ren\xC3\xA9", "Ama",   "Cleo",  "Ivo"};
constexpr std::array kLast = {"Venn",   "Arlo",   "Marsh", "Okafor", "Lindqvist",
                              "Moreau", "Kade",   "Sol",   "Varga",  "Reyes",
                              "Hollis", "Brandt", "Ito",   "Fenn",   "M\xC3\xBCller",
                              "Costa",  "Quill",  "Dahl",  "Neri",   "Voss"};
constexpr std::array kWords = {
    "Midnight", "Circuit", "Velvet", "Signal", "Echo",    "Harbor", "Neon",    "Drift", "Pulse",
    "Garden",   "Static",  "Ember",  "Tide",   "Mirror",  "Orbit",  "Dust",    "Fever", "Glass",
    "Horizon",  "Saudade", "Ritual", "Motion", "Lantern", "Vapor",  "Cascade", "Bloom"};
constexpr std::array kGenres = {"House",    "Deep House", "Techno",  "Disco",       "Nu Disco",
                                "Electro",  "Breaks",     "Ambient", "Drum & Bass", "Garage",
                                "Dub",      "Hip-Hop",    "Soul",    "Funk",        "Jazz",
                                "Afrobeat", "Balearic",   "Minimal"};
constexpr std::array kKeys = {"1A", "2A",  "3A",  "4A",  "5A", "6A",  "7A",  "8A",
                              "9A", "10A", "11A", "12A", "1B", "2B",  "3B",  "4B",
                              "5B", "6B",  "7B",  "8B",  "9B", "10B", "11B", "12B"};
constexpr std::array kExt = {"mp3", "mp3", "mp3", "flac", "m4a", "wav", "aiff"};

template <typename A>
std::string pick(std::mt19937& g, const A& a) {
  return a[std::uniform_int_distribution<size_t>(0, a.size() - 1)(g)];
}

}  // namespace

std::vector<SampleTrack> makeTracks(int count, uint32_t seed, const std::string& root) {
  std::mt19937 g(seed);
  // A library has far fewer artists than tracks, and albums of several tracks.
  const int artists = std::max(std::min(count, 6), count / 8);
  std::vector<std::string> artistNames;
  for (int i = 0; i < artists; ++i)
    artistNames.push_back(
        pick(g, kFirst) + " " + pick(g, kLast) +
        (i >= static_cast<int>(kFirst.size() * kLast.size()) ? fmt::format(" {}", i) : ""));
  // Two or three albums each, so album folders hold several tracks as they do
  // in a real collection.
  std::vector<std::vector<std::string>> artistAlbums(artistNames.size());
  for (auto& albums : artistAlbums)
    for (int n = 2 + static_cast<int>(g() % 2); n > 0; --n)
      albums.push_back(pick(g, kWords) + " " + pick(g, kWords));
  std::vector<SampleTrack> out;
  out.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const size_t a = std::uniform_int_distribution<size_t>(0, artistNames.size() - 1)(g);
    const std::string& artist = artistNames[a];
    const std::string album = artistAlbums[a][g() % artistAlbums[a].size()];
    const std::string title = pick(g, kWords) + " " + pick(g, kWords) +
                              (g() % 5 == 0 ? " (" + pick(g, kFirst) + " Remix)" : "");
    SampleTrack t;
    t.file.path = fmt::format("{}/{}/{}/{:02} {} {}.{}", root, artist, album, i % 12 + 1, title, i,
                              pick(g, kExt));
    t.file.title = title;
    t.file.artist = artist;
    t.file.album = album;
    t.file.genre = pick(g, kGenres);
    t.file.durationMs = std::uniform_int_distribution<int64_t>(120'000, 540'000)(g);
    t.file.filesizeBytes = *t.file.durationMs * 40;
    t.file.dateAdded = 1'600'000'000 + static_cast<int64_t>(g() % 200'000'000);
    t.file.dateCreated = *t.file.dateAdded - static_cast<int64_t>(g() % 10'000'000);
    t.bpm = std::round(std::uniform_real_distribution<double>(84, 174)(g) * 10) / 10;
    t.key = pick(g, kKeys);
    t.year = std::to_string(1975 + g() % 51);
    t.rating = static_cast<int>(g() % 6) * 20;
    t.bitrate = t.file.path.ends_with(".mp3") ? 320 : 1411;
    t.comment = g() % 3 == 0 ? "Energy " + std::to_string(g() % 10 + 1) : "";
    out.push_back(std::move(t));
  }
  return out;
}

Result<std::vector<int64_t>> fill(OrvelDB& db, const std::vector<SampleTrack>& tracks) {
  std::vector<int64_t> ids;
  ids.reserve(tracks.size());
  Transaction tx(db.connection());
  if (!tx) return tx.status();
  const auto source = db.tracks().orvelSourceId();
  if (!source) return source.status();
  Statement details = db.prepare(
      "UPDATE tracks SET bpm = ?, key = ?, year = ?, rating = ?, bitrate_kbps = ?, comment = ?, "
      "play_count = ? WHERE id = ?");
  for (const auto& t : tracks) {
    const auto id = db.tracks().insertImported(t.file, *source);
    if (!id) return id.status();
    ids.push_back(*id);
    details.reset();
    details.bind(1, t.bpm).bind(2, t.key).bind(3, t.year).bind(4, static_cast<int64_t>(t.rating));
    details.bind(5, static_cast<int64_t>(t.bitrate));
    if (t.comment.empty())
      details.bindNull(6);
    else
      details.bind(6, t.comment);
    if (details.bind(7, static_cast<int64_t>(ids.size() % 17)).bind(8, *id).stepCode() !=
        SQLITE_DONE)
      return db.connection().lastStatus();
  }
  if (Status s = tx.commit(); !s) return s;
  return ids;
}

}  // namespace orvel::sample
