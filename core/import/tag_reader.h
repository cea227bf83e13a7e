// Reading what a file's own tags say, with TagLib (and our own ID3 reader
// where TagLib loses frames). Several artists (two TPE1 frames, or the
// values of one ID3v2.4 frame) read as one text, "A, B". Readers of foreign bytes:
// they never throw, and a file whose tags cannot be read gives empty fields
// (the importer's fallbacks then apply). The reader is chosen by the file's
// extension and, when that fails, by its first bytes, so an AAC file named
// ".mp3" still reads.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace orvel::Importer {

struct Tags {
  std::optional<std::string> title, artist, album, genre;
  std::optional<std::string> year;  // already passed through yearOnly
  std::optional<std::string> comment, grouping, publisher;
  std::optional<int64_t> durationMs;
  std::optional<int64_t> bitrateKbps;
  std::optional<int64_t> sampleRateHz;
  std::optional<double> bpm;       // "TBPM", "tmpo", "BPM"; only a plausible tempo
  std::optional<std::string> key;  // "TKEY", "initialkey", "INITIALKEY", as written
  // What the album and the shelf need: every container names them its own
  // way; TagLib's property names unify them.
  std::optional<std::string> albumArtist, composer;
  std::optional<int64_t> trackNumber, trackCount, discNumber, discCount;
  std::optional<bool> compilation;
  std::optional<std::string> sortTitle, sortArtist, sortAlbum, sortAlbumArtist, sortComposer;
  // The container as the catalogue names it: "mp3", "quicktime", "wave",
  // "aiff"; none for FLAC, Ogg and raw AAC.
  std::optional<std::string> fileType;
  bool readable = false;  // TagLib recognised the file
};

Tags readTags(const std::filesystem::path& file);

// kbps as the file's audio properties give it; for files that do not state
// one (some WAV and ALAC files), size × 8 / duration.
std::optional<int64_t> bitrate(const std::filesystem::path& file);

// The year in a date text: its leading run of digits when that is four long,
// else the whole text when it is four characters long, else none.
// "1997-05-01" → "1997", "97" → none, "abcd" → "abcd".
std::optional<std::string> yearOnly(std::string_view text);

// A tag text fit for the catalogue: valid UTF-8, trimmed, without control
// characters, at most `maxBytes` long (cut on a character boundary); none
// when nothing is left.
std::optional<std::string> cleanTagText(std::string_view text, size_t maxBytes = 1024);

}  // namespace orvel::Importer
