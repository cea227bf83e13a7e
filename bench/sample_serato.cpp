#include "bench/sample_serato.h"

#include <fmt/format.h>
#include <generalencapsulatedobjectframe.h>
#include <id3v2tag.h>
#include <mpegfile.h>

#include "core/testing/serato_bytes.h"
#include "core/text/split.h"

namespace orvel::sample {
namespace {

using testing::Bytes;

void addGeob(TagLib::ID3v2::Tag& tag, const char* description, const Bytes& object) {
  auto frame = std::make_unique<TagLib::ID3v2::GeneralEncapsulatedObjectFrame>();
  frame->setTextEncoding(TagLib::String::Latin1);
  frame->setMimeType("application/octet-stream");
  frame->setDescription(description);
  frame->setObject(TagLib::ByteVector(reinterpret_cast<const char*>(object.data()),
                                      static_cast<unsigned>(object.size())));
  tag.addFrame(frame.release());
}

// Two hot cues, a loop and a one-marker grid at the song's tempo.
void tagWithCues(const SampleTrack& t) {
  TagLib::MPEG::File file(t.file.path.c_str(), true);
  if (!file.isValid()) return;
  // Cues inside the file as written, however long the song it stands for.
  const auto* audio = file.audioProperties();
  const auto length = static_cast<uint32_t>(audio ? audio->lengthInMilliseconds() : 2000);
  const Bytes markers = testing::markers2Object(
      {testing::markersEntry("COLOR", {0, 0xFF, 0xFF, 0xFF}),
       testing::markersEntry("CUE", testing::cueBody(0, 250, 0xCC, 0x00, 0x00, "Intro")),
       testing::markersEntry("CUE", testing::cueBody(1, length / 3, 0xCC, 0x88, 0x00, "Drop")),
       testing::markersEntry("LOOP",
                             testing::loopBody(0, length / 2, length * 3 / 4, "Break loop"))});
  const Bytes grid = testing::beatGridObject({{0.25f, static_cast<float>(t.bpm)}});
  TagLib::ID3v2::Tag* tag = file.ID3v2Tag(true);
  addGeob(*tag, "Serato Markers2", markers);
  addGeob(*tag, "Serato BeatGrid", grid);
  file.save();
}

}  // namespace

std::vector<uint8_t> seratoRecordOf(const SampleTrack& t, uint32_t dateAdded) {
  const NewTrack& f = t.file;
  const int64_t ms = f.durationMs.value_or(0);
  return testing::seratoTrackRecord(
      {{"ttyp", extensionOf(f.path)},
       {"pfil", f.path.substr(1)},
       {"tsng", f.title.value_or("")},
       {"tart", f.artist.value_or("")},
       {"talb", f.album.value_or("")},
       {"tgen", f.genre.value_or("")},
       {"tbpm", fmt::format("{:.2f}", t.bpm)},
       {"tkey", t.key},
       {"ttyr", t.year},
       {"tcom", t.comment},
       {"tlen", fmt::format("{:02}:{:02}.{:02}", ms / 60000, ms / 1000 % 60, ms / 10 % 100)},
       {"tbit", fmt::format("{}.0kbps", t.bitrate)},
       {"tsmp", "44.1k"},
       {"tsiz",
        fmt::format("{:.1f}MB", static_cast<double>(f.filesizeBytes.value_or(0)) / 1048576.0)}},
      dateAdded);
}

void writeSeratoLibrary(const std::vector<SampleTrack>& tracks,
                        const std::filesystem::path& seratoDir) {
  std::vector<Bytes> records;
  std::vector<std::string> warmUp, peak;
  for (size_t i = 0; i < tracks.size(); ++i) {
    const SampleTrack& t = tracks[i];
    if (extensionOf(t.file.path) == "mp3") tagWithCues(t);
    records.push_back(seratoRecordOf(t, 1700000000u + static_cast<uint32_t>(i) * 86400u));
    (t.bpm < 124 ? warmUp : peak).push_back(t.file.path);
  }
  testing::writeBytes(seratoDir / "database V2", testing::seratoDatabase(records));
  testing::writeBytes(seratoDir / "Subcrates" / "Gigs%%Warm-up.crate",
                      testing::seratoCrate(warmUp));
  testing::writeBytes(seratoDir / "Subcrates" / "Gigs%%Peak time.crate",
                      testing::seratoCrate(peak));
  testing::writeBytes(
      seratoDir / "SmartCrates" / "Fast House.scrate",
      testing::seratoSmartCrate({{15, "cond_greq_uint", {}, 125}, {5, "cond_con_str", "House", {}}},
                                true, true));
}

}  // namespace orvel::sample
