// Where Serato keeps its per-file payloads in each kind of audio file, found
// by walking the container's headers (the audio itself is never read):
//
//   MP3               GEOB frames of the leading ID3v2 tag
//   AIFF, WAV         GEOB frames of the ID3v2 tag in an "ID3 " chunk
//   FLAC, Ogg         Vorbis comments SERATO_MARKERS_V2 / SERATO_BEATGRID
//                     (Ogg files spell them serato_markers2 / serato_beatgrid)
//   MP4, M4A          freeform atoms ----:com.serato.dj:markersv2 / beatgrid
//
// Outside ID3 the value is base64 text (wrapped every 72 characters, without
// "=" padding) of an envelope: "application/octet-stream", NUL, an empty file
// name's NUL, the frame description and its NUL, then the same bytes a GEOB
// frame would hold. Each payload comes back as that GEOB object under its
// description, so one parser serves every container.
//
// Readers of foreign bytes: nothing throws; a fault ends the walk with what
// was found before it. No more than 64 MiB of tag data is read from a file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/formats/byte_source.h"
#include "core/formats/id3_reader.h"

namespace orvel::SeratoPayloads {

// Every "Serato Markers2" and "Serato BeatGrid" payload of the file, in the
// order they stand; the container is told by its first bytes, not its name.
std::vector<GEOBFrame> find(const std::filesystem::path& file);
std::vector<GEOBFrame> find(const ByteSource& source);

// The comments of a Vorbis comment block (vendor, count, "KEY=value" each),
// as (key, value) in the order they stand.
std::vector<std::pair<std::string, std::string>> vorbisComments(std::span<const uint8_t> block);

// A Vorbis comment or MP4 atom value to the GEOB object it stands for, under
// the description its envelope (or, without one, `description`) names.
std::optional<GEOBFrame> fromEnvelope(std::string_view value, std::string_view description);

// Base64 the way Serato writes it: line breaks anywhere, NULs after the end,
// no "=" padding, and now and then one stray character past the last whole
// group of four (six bits, less than a byte: it is dropped).
std::optional<std::vector<uint8_t>> seratoBase64(std::string_view text);

}  // namespace orvel::SeratoPayloads
