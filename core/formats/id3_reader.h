// A read-only ID3v2 reader for the general encapsulated object frames
// ("GEOB"; "GEO" in ID3v2.2) of a file's leading tag, where DJ software keeps
// cues, loops and beat grids, and for its text frames where another reader
// loses some (TagLib 1.13 drops the last frame of an ID3v2.4 tag with an
// extended header). Only files that begin with "ID3" are looked at; a tag
// inside an AIFF chunk, MP4 atoms or FLAC blocks is found by serato_payloads.
//
// Nothing throws and nothing is reported: an unreadable file, a missing,
// oversized or truncated tag, or a malformed frame ends the scan with what
// was found before it. Only the 10-byte header and the declared tag size
// (capped at 64 MiB) are read; the audio is never touched.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvel {

struct GEOBFrame {
  std::string description;      // e.g. "Serato Markers2", as UTF-8
  std::vector<uint8_t> object;  // everything after the description
};

class ID3Reader {
 public:
  ID3Reader() = delete;

  static constexpr size_t kHeaderSize = 10;
  static constexpr uint32_t kMaxTagSize = 64u << 20;

  // The GEOB frames of the file's tag, in the order they stand.
  static std::vector<GEOBFrame> geobFrames(const std::filesystem::path& file);

  // The same from bytes already read: the 10-byte header, then the body
  // (which may be shorter than the size the header declares).
  static std::vector<GEOBFrame> geobFrames(std::span<const uint8_t> header,
                                           std::span<const uint8_t> body);

  // The text frames ("T…" but "TXXX", and "COMM" without a description) in
  // the order they stand, each with its values (ID3v2.4 may hold several).
  struct TextFrame {
    std::string id;  // "TPE1", as it stands in the tag
    std::vector<std::string> values;
  };
  static std::vector<TextFrame> textFrames(std::span<const uint8_t> header,
                                           std::span<const uint8_t> body);
  // None for a file without a usable tag.
  static std::optional<std::vector<TextFrame>> textFrames(const std::filesystem::path& file);

  // The tag size the header declares; none for anything but a usable ID3v2
  // header (wrong magic, size 0, or 64 MiB and more).
  static std::optional<uint32_t> tagSize(std::span<const uint8_t> header);

  // A frame body to a frame; none when it is too short or malformed.
  static std::optional<GEOBFrame> parseGEOB(std::span<const uint8_t> body);

  // One terminated string in ID3 text encoding `encoding` from `offset`:
  // the text (empty when the bytes do not decode) and the offset just past
  // its terminator, clamped to the data's length.
  static std::pair<std::string, size_t> readString(std::span<const uint8_t> data, size_t offset,
                                                   uint8_t encoding);

  // Removes unsynchronisation: a 0x00 directly after 0xFF is dropped.
  static std::vector<uint8_t> deunsync(std::span<const uint8_t> bytes);

 private:
  // Every frame of the tag: its id and its body, unsynchronisation undone.
  static void walk(std::span<const uint8_t> header, std::span<const uint8_t> body,
                   const std::function<void(std::string_view, std::span<const uint8_t>)>& visit);
};

}  // namespace orvel
