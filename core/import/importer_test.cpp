#include "core/import/importer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "core/import/import_report.h"
#include "core/import/production.h"
#include "core/testing/audio_files.h"
#include "core/testing/serato_bytes.h"
#include "core/testing/store_fixture.h"
#include "core/text/path_norm.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;
using testing::AudioFormat;
using testing::AudioTags;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

void writeBytes(const fs::path& p, const std::string& bytes) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << bytes;
}

AudioTags fullTags(const std::string& title) {
  AudioTags t;
  t.title = title;
  t.artist = "Moodymann";
  t.album = "Black Mahogani";
  t.genre = "Deep House";
  t.year = "2004-03-01";
  t.comment = "warm-up";
  t.grouping = "Detroit";
  t.publisher = "Peacefrog";
  t.bpm = "118";
  t.key = "8A";
  return t;
}

class ImportTest : public testing::StoreTest {
 protected:
  Importer::Result ingest(std::vector<fs::path> paths, Importer::Options opt = {}) {
    return Importer::ingest(paths, db(), opt);
  }
  fs::path src(const std::string& rel) { return dir_ / "in" / rel; }
  fs::path inDir() { return dir_ / "in"; }
};

TEST(ImporterText, YearAndTagTextRules) {
  EXPECT_EQ(Importer::yearOnly("1997-05-01"), "1997");
  EXPECT_EQ(Importer::yearOnly("1997"), "1997");
  EXPECT_EQ(Importer::yearOnly("97"), std::nullopt);
  EXPECT_EQ(Importer::yearOnly("abcd"), "abcd");
  EXPECT_EQ(Importer::yearOnly("19970"), std::nullopt);
  EXPECT_EQ(Importer::yearOnly(""), std::nullopt);

  EXPECT_EQ(Importer::cleanTagText("  a\tb\0c  "), "a b");  // stops at the literal's NUL
  EXPECT_EQ(Importer::cleanTagText(std::string("a\0b", 3)), "a b");
  EXPECT_EQ(Importer::cleanTagText("\xC3\x28"), std::nullopt);  // not UTF-8
  EXPECT_EQ(Importer::cleanTagText(" \r\n "), std::nullopt);
  // Cut on a character boundary: "é" is two bytes and must not be split.
  EXPECT_EQ(Importer::cleanTagText("aé", 2), "a");

  EXPECT_EQ(Importer::folderName(std::string("AC/DC: Live"), "Unknown Artist"), "AC-DC- Live");
  EXPECT_EQ(Importer::folderName(std::nullopt, "Unknown Album"), "Unknown Album");
  EXPECT_EQ(Importer::folderName(std::string(".."), "Unknown Artist"), "Unknown Artist");
  EXPECT_EQ(Importer::folderName(std::string(" / "), "X"), "-");
  EXPECT_LE(Importer::folderName(std::string(400, 'a'), "X").size(), 200u);

  EXPECT_TRUE(Importer::isInside("/m/root/a/b.mp3", "/m/root"));
  EXPECT_TRUE(Importer::isInside("/m/root/a/b.mp3", "/m/root/"));
  EXPECT_FALSE(Importer::isInside("/m/root2/b.mp3", "/m/root"));
  EXPECT_FALSE(Importer::isInside("/m/b.mp3", "/m/root"));
}

TEST(ImporterText, ProductionClassification) {
  using Importer::isProductionMaterial;
  EXPECT_TRUE(isProductionMaterial({.genre = "Sample Pack"}));
  EXPECT_TRUE(isProductionMaterial({.genre = "ONE-SHOTS"}));
  EXPECT_TRUE(isProductionMaterial({.grouping = "Drum Loops"}));
  EXPECT_TRUE(isProductionMaterial({.grouping = "stems"}));
  EXPECT_TRUE(isProductionMaterial({.comment = "Royalty-free, from the Vocal sample pack"}));
  EXPECT_TRUE(isProductionMaterial({.folder = "/home/dj/Music/Splice/Samples/kicks"}));
  EXPECT_TRUE(isProductionMaterial({.folder = "/x/Techno Construction Kit 3/Bass"}));
  EXPECT_TRUE(isProductionMaterial({.folder = "/x/Vocal_Loops"}));

  EXPECT_FALSE(isProductionMaterial({.genre = "Deep House", .grouping = "Detroit"}));
  EXPECT_FALSE(isProductionMaterial({.comment = "loop this one at the break, stems on request"}));
  EXPECT_FALSE(isProductionMaterial({.folder = "/x/Loops and Grooves Records/LP"}));
  EXPECT_FALSE(isProductionMaterial({.folder = "/x/Sampled Soul"}));
}

TEST(ImporterText, ReportTexts) {
  Importer::Result r;
  r.added = {4};
  EXPECT_EQ(Importer::statusText(r), "Added 1");
  EXPECT_EQ(Importer::toast(r).text, "Added 1 track");
  EXPECT_EQ(Importer::toast(r).symbol, "folder.badge.plus");
  r.added = {4, 5, 6};
  r.dupes = 2;
  r.failed = 1;
  EXPECT_EQ(Importer::statusText(r), "Added 3 · 2 already here");
  EXPECT_EQ(Importer::toast(r).text, "Added 3 tracks · 2 already here");
  EXPECT_EQ(Importer::logLine(r, "drop"), "import in place: 3 in, 2 dupes, 1 failed <- drop");
}

TEST_F(ImportTest, ExpandKeepsAudioAtAnyDepthOnce) {
  for (const char* f : {"a/x.MP3", "a/b/c/d.flac", "a/b/e.m4v", "a/._f.mp3", "a/g.txt",
                        "a/b/h.aifc", "top.wav", "solo.ogg"})
    writeBytes(src(f), "x");
  const auto files = Importer::expand(std::vector<fs::path>{
      src("a"), src("top.wav"), src("solo.ogg"), src("a/x.MP3"), src("missing.mp3")});
  EXPECT_THAT(files, ElementsAre(src("a/b/c/d.flac"), src("a/b/h.aifc"), src("a/x.MP3"),
                                 src("top.wav"), src("solo.ogg")));
}

TEST_F(ImportTest, ReadsTheTagsOfEveryFormat) {
  struct Case {
    AudioFormat format;
    std::optional<std::string> fileType;
  };
  for (const Case& c : {Case{AudioFormat::mp3, "mp3"}, Case{AudioFormat::m4a, "quicktime"},
                        Case{AudioFormat::alac, "quicktime"}, Case{AudioFormat::aac, std::nullopt},
                        Case{AudioFormat::flac, std::nullopt}, Case{AudioFormat::wav, "wave"},
                        Case{AudioFormat::aiff, "aiff"}, Case{AudioFormat::ogg, std::nullopt}}) {
    const fs::path file = src("t." + std::string(testing::extensionFor(c.format)));
    SCOPED_TRACE(file.filename().string() + " " + std::to_string(static_cast<int>(c.format)));
    testing::writeAudioFile(file, c.format, fullTags("Shades Of Jae"));
    const auto t = Importer::readTags(file);
    EXPECT_TRUE(t.readable);
    EXPECT_EQ(t.title, "Shades Of Jae");
    EXPECT_EQ(t.artist, "Moodymann");
    EXPECT_EQ(t.album, "Black Mahogani");
    EXPECT_EQ(t.genre, "Deep House");
    EXPECT_EQ(t.year, "2004");
    EXPECT_EQ(t.comment, "warm-up");
    EXPECT_EQ(t.grouping, "Detroit");
    EXPECT_EQ(t.publisher, "Peacefrog");
    EXPECT_EQ(t.bpm, 118.0);
    EXPECT_EQ(t.key, "8A");
    EXPECT_EQ(t.fileType, c.fileType);
    EXPECT_EQ(t.sampleRateHz, 44100);
    ASSERT_TRUE(t.durationMs.has_value());
    EXPECT_NEAR(static_cast<double>(*t.durationMs), 2000.0, 120.0);
    ASSERT_TRUE(t.bitrateKbps.has_value());
    EXPECT_GT(*t.bitrateKbps, 8);
  }
  // ID3v2.3 keeps its year in TYER.
  AudioTags v23 = fullTags("Old");
  v23.id3v23 = true;
  v23.year = "1997";
  testing::writeAudioFile(src("v23.mp3"), AudioFormat::mp3, v23);
  EXPECT_EQ(Importer::readTags(src("v23.mp3")).year, "1997");
  // An AAC stream named ".mp3" is read by its content.
  testing::writeAudioFile(src("liar.m4a"), AudioFormat::m4a, fullTags("Liar"));
  fs::rename(src("liar.m4a"), src("liar.mp3"));
  const auto liar = Importer::readTags(src("liar.mp3"));
  EXPECT_EQ(liar.title, "Liar");
  EXPECT_EQ(liar.fileType, "quicktime");
}

// Fields the record has and TagLib offers, which imports used to leave out;
// and frames TagLib 1.13 loses.
TEST_F(ImportTest, ReadsEveryFieldADjSortsByAndFramesTagLibDrops) {
  using testing::Id3Frame;
  auto text = [](std::string id, const std::string& value) {
    return Id3Frame{std::move(id), testing::concat({{3}, testing::bytesOf(value)})};
  };
  const std::string audio = testing::audioBody(AudioFormat::mp3);
  auto write = [&](const fs::path& file, const testing::Bytes& tag) {
    writeBytes(file, std::string(tag.begin(), tag.end()) + audio);
  };
  write(src("full.mp3"),
        testing::id3Tag(
            4, {text("TIT2", "Title"), text("TPE1", "First Artist"), text("TPE1", "Second Artist"),
                text("TPE2", "Album Artist"), text("TCOM", "Composer"), text("TRCK", "3/12"),
                text("TPOS", "1/2"), text("TCMP", "1"), text("TSOT", "Sort Title"),
                text("TSOP", "Artist, The"), text("TSOA", "Album, The"),
                text("TSO2", "Album Artist, The"), text("TSOC", "Composer, The")}));
  const auto t = Importer::readTags(src("full.mp3"));
  EXPECT_EQ(t.title, "Title");
  EXPECT_EQ(t.artist, "First Artist, Second Artist");
  EXPECT_EQ(t.albumArtist, "Album Artist");
  EXPECT_EQ(t.composer, "Composer");
  EXPECT_EQ(t.trackNumber, 3);
  EXPECT_EQ(t.trackCount, 12);
  EXPECT_EQ(t.discNumber, 1);
  EXPECT_EQ(t.discCount, 2);
  EXPECT_EQ(t.compilation, true);
  EXPECT_EQ(t.sortTitle, "Sort Title");
  EXPECT_EQ(t.sortArtist, "Artist, The");
  EXPECT_EQ(t.sortAlbum, "Album, The");
  EXPECT_EQ(t.sortAlbumArtist, "Album Artist, The");
  EXPECT_EQ(t.sortComposer, "Composer, The");

  // An ID3v2.4 extended header (its size counts itself, one flag byte, no
  // flags) and no padding: TagLib 1.13 takes the header's size off the end
  // as well, and a short last frame falls off.
  write(src("extended.mp3"), testing::id3Tag(4,
                                             {text("TIT2", "Extended"), text("TPE1", "Artist"),
                                              text("TCON", "Techno"), text("TRCK", "7")},
                                             0x40, {0, 0, 0, 6, 1, 0}));
  const auto e = Importer::readTags(src("extended.mp3"));
  EXPECT_EQ(e.title, "Extended");
  EXPECT_EQ(e.genre, "Techno");
  EXPECT_EQ(e.trackNumber, 7);

  // All of it reaches the catalogue.
  ASSERT_EQ(ingest({src("full.mp3")}).added.size(), 1u);
  const int64_t id = *db().tracks().liveTrackId(src("full.mp3").string());
  EXPECT_EQ(field(id, "album_artist"), "Album Artist");
  EXPECT_EQ(field(id, "composer"), "Composer");
  EXPECT_EQ(field(id, "track_number"), "3");
  EXPECT_EQ(field(id, "track_count"), "12");
  EXPECT_EQ(field(id, "disc_number"), "1");
  EXPECT_EQ(field(id, "disc_count"), "2");
  EXPECT_EQ(field(id, "compilation"), "1");
  EXPECT_EQ(field(id, "sort_artist"), "Artist, The");
  EXPECT_EQ(field(id, "sort_album_artist"), "Album Artist, The");

  // The other containers carry the same fields under their own names.
  AudioTags more = fullTags("More");
  testing::writeAudioFile(src("more.flac"), AudioFormat::flac, more);
  testing::writeAudioFile(src("more.m4a"), AudioFormat::m4a, more);
  for (const char* name : {"more.flac", "more.m4a"})
    EXPECT_EQ(Importer::readTags(src(name)).artist, "Moodymann") << name;
}

TEST_F(ImportTest, ImportsATreeOnceAndKeepsWhatTheUserChanged) {
  testing::writeAudioFile(src("House/a.mp3"), AudioFormat::mp3, fullTags("A"));
  testing::writeAudioFile(src("House/Deep/b.flac"), AudioFormat::flac, fullTags("B"));
  testing::writeAudioFile(src("Old/c.MP3"), AudioFormat::mp3);  // no tags at all
  testing::writeAudioFile(src("Old/Deeper/Still/d.m4a"), AudioFormat::m4a, fullTags("D"));
  testing::writeAudioFile(src("Samples/kick.wav"), AudioFormat::wav);
  writeBytes(src("Old/clip.m4v"), "not audio");

  const auto first = ingest({inDir()});
  EXPECT_EQ(first.added.size(), 5u);
  EXPECT_EQ(first.dupes, 0);
  EXPECT_EQ(first.failed, 0);
  EXPECT_EQ(db().count("tracks"), 5);

  const auto a = *db().tracks().liveTrackId(src("House/a.mp3").string());
  EXPECT_EQ(field(a, "year"), "2004");
  EXPECT_EQ(field(a, "label"), "Peacefrog");
  EXPECT_EQ(field(a, "key"), "8A");
  EXPECT_EQ(field(a, "bpm"), "118.0");
  EXPECT_EQ(field(a, "file_type"), "mp3");
  EXPECT_EQ(field(a, "samplerate_hz"), "44100");
  EXPECT_EQ(field(a, "production"), "0");
  const auto c = *db().tracks().liveTrackId(src("Old/c.MP3").string());
  EXPECT_EQ(field(c, "title"), "c");
  EXPECT_EQ(field(c, "artist"), "Unknown Artist");
  EXPECT_EQ(field(c, "album"), "Unknown Album");
  EXPECT_EQ(field(c, "filename"), "c.MP3");
  const auto kick = *db().tracks().liveTrackId(src("Samples/kick.wav").string());
  EXPECT_EQ(field(kick, "production"), "1");

  // The user's values on a kept row, and on a removed row brought back, survive.
  ASSERT_TRUE(db().tracks().setField("bpm", "121", std::vector<int64_t>{a}, "Set BPM"));
  const auto b = *db().tracks().liveTrackId(src("House/Deep/b.flac").string());
  ASSERT_TRUE(db().tracks().setField("comment", "mine", std::vector<int64_t>{b}, "Edit"));
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{b}));

  const auto again = ingest({inDir()});
  EXPECT_THAT(again.added, ElementsAre(b));  // brought back
  EXPECT_EQ(again.dupes, 4);
  EXPECT_EQ(db().count("tracks"), 5);
  EXPECT_EQ(field(a, "bpm"), "121.0");
  EXPECT_EQ(field(b, "comment"), "mine");
  EXPECT_EQ(field(b, "removed"), "");
}

TEST_F(ImportTest, CopiesIntoTheMediaRootByArtistAndAlbum) {
  const fs::path root = dir_ / "Media";
  Importer::Options copy{.mediaRoot = root, .copyFiles = true};
  AudioTags acdc;
  acdc.artist = "AC/DC: Live";
  acdc.album = "Back: In/Black";
  testing::writeAudioFile(src("one/song.mp3"), AudioFormat::mp3, acdc);
  testing::writeAudioFile(src("plain.flac"), AudioFormat::flac);

  const auto r = ingest({src("one/song.mp3"), src("plain.flac")}, copy);
  ASSERT_EQ(r.added.size(), 2u) << (r.failures.empty() ? "" : r.failures[0].reason);
  const fs::path copied = root / "AC-DC- Live" / "Back- In-Black" / "song.mp3";
  EXPECT_TRUE(fs::exists(copied));
  EXPECT_TRUE(fs::exists(src("one/song.mp3")));  // the original stays
  EXPECT_EQ(field(r.added[0], "path"), copied.string());
  EXPECT_TRUE(fs::exists(root / "Unknown Artist" / "Unknown Album" / "plain.flac"));

  // The same file again: the earlier copy is taken, nothing new is written.
  const auto again = ingest({src("one/song.mp3")}, copy);
  EXPECT_EQ(again.added.size(), 0u);
  EXPECT_EQ(again.dupes, 1);
  EXPECT_FALSE(fs::exists(copied.parent_path() / "song 1.mp3"));

  // A different file of the same name gets the next free number.
  for (int n : {1, 2}) {
    acdc.title = "take " + std::to_string(n);
    acdc.comment = std::string(static_cast<size_t>(n) * 100, 'x');  // a different size
    testing::writeAudioFile(src("two/song.mp3"), AudioFormat::mp3, acdc);
    EXPECT_EQ(ingest({src("two/song.mp3")}, copy).added.size(), 1u);
    EXPECT_TRUE(fs::exists(copied.parent_path() / ("song " + std::to_string(n) + ".mp3")));
  }
  // A file already inside the media root is taken where it lies.
  EXPECT_EQ(ingest({copied}, copy).dupes, 1);
  // Four folders and four files: no temporary copy is left behind.
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(root), {}), 8);
}

TEST_F(ImportTest, BadFilesFailOrFallBackAndTheImportGoesOn) {
  const std::string mp3 = testing::audioBody(AudioFormat::mp3);
  auto id3v23 = [](const std::string& frames) {
    const auto n = frames.size();
    std::string h = "ID3\x03";
    h += '\0';
    h += '\0';
    for (int shift : {21, 14, 7, 0}) h += static_cast<char>((n >> shift) & 0x7F);
    return h + frames;
  };
  auto frame = [](const std::string& id, const std::string& body, uint32_t claimed = 0) {
    const uint32_t size = claimed ? claimed : static_cast<uint32_t>(body.size());
    std::string f = id;
    for (int shift : {24, 16, 8, 0}) f += static_cast<char>((size >> shift) & 0xFF);
    return f + std::string(2, '\0') + body;
  };
  writeBytes(src("empty.mp3"), "");
  writeBytes(src("noise.mp3"), std::string(5000, '\x5A'));
  // A frame that claims far more bytes than the tag holds.
  writeBytes(src("huge.mp3"), id3v23(frame("TIT2",
                                           "\x03"
                                           "Huge",
                                           0x7FFFFFF0)) +
                                  mp3);
  // UTF-16 text with a lone surrogate, then a sane artist.
  writeBytes(src("bad16.mp3"),
             id3v23(frame("TIT2", std::string("\x01\xFF\xFE\x00\xD8\x41\x00", 7)) + frame("TPE1",
                                                                                          "\x03"
                                                                                          "Fine")) +
                 mp3);
  // A comment of a megabyte.
  writeBytes(src("long.mp3"), id3v23(frame("COMM",
                                           "\x03"
                                           "eng" +
                                               std::string(1, '\0') + std::string(1 << 20, 'c'))) +
                                  mp3);
  const std::string nfd = "Cafe\xCC\x81 \xF0\x9F\x8E\xB6 \xE6\x9D\xB1\xE4\xBA\xAC.mp3";
  testing::writeAudioFile(src(nfd), AudioFormat::mp3, fullTags("Unicode"));
  testing::writeAudioFile(src("zz-vanishes.mp3"), AudioFormat::mp3);

  Importer::Options opt;
  opt.onProgress = [&](const Importer::Progress& p) {
    if (p.current.ends_with("zz-vanishes.mp3")) fs::remove(src("zz-vanishes.mp3"));
  };
  const auto r = ingest({inDir()}, opt);
  EXPECT_EQ(r.added.size(), 5u);
  EXPECT_EQ(r.failed, 2);
  ASSERT_EQ(r.failures.size(), 2u);
  EXPECT_THAT(r.failures[0].path, HasSubstr("empty.mp3"));
  EXPECT_EQ(r.failures[0].reason, "the file is empty");
  EXPECT_THAT(r.failures[1].path, HasSubstr("zz-vanishes.mp3"));
  EXPECT_EQ(r.failures[1].reason, "the file is gone");
  EXPECT_EQ(db().count("tracks"), 5);

  EXPECT_EQ(field(*db().tracks().liveTrackId(src("noise.mp3").string()), "title"), "noise");
  EXPECT_EQ(field(*db().tracks().liveTrackId(src("huge.mp3").string()), "artist"),
            "Unknown Artist");
  const auto bad16 = *db().tracks().liveTrackId(src("bad16.mp3").string());
  EXPECT_TRUE(isValidUtf8(field(bad16, "title")));
  EXPECT_EQ(field(bad16, "artist"), "Fine");
  EXPECT_LE(field(*db().tracks().liveTrackId(src("long.mp3").string()), "comment").size(), 4096u);
  const auto uni = db().tracks().liveTrackId(src(nfd).string());
  ASSERT_TRUE(uni);
  EXPECT_EQ(field(*uni, "path"), src(nfd).string());
  EXPECT_EQ(field(*uni, "title"), "Unicode");
}

TEST_F(ImportTest, AMediaRootThatCannotBeWrittenFailsEachCopy) {
  writeBytes(dir_ / "blocker", "a file where the media root's folder should be");
  testing::writeAudioFile(src("a.mp3"), AudioFormat::mp3);
  testing::writeAudioFile(src("b.mp3"), AudioFormat::mp3);
  const auto r = ingest({inDir()}, {.mediaRoot = dir_ / "blocker" / "Media", .copyFiles = true});
  EXPECT_EQ(r.added.size(), 0u);
  EXPECT_EQ(r.failed, 2);
  EXPECT_THAT(r.failures[0].reason, HasSubstr("cannot create the folder"));
  EXPECT_EQ(db().count("tracks"), 0);
}

// Another program holding the catalogue past the timeout: no file is
// reported added, the one cause is given once, and the import stops there.
TEST_F(ImportTest, ACatalogueThatCannotBeWrittenStopsTheImportWithOneCause) {
  testing::writeAudioFile(src("a.mp3"), AudioFormat::mp3);
  testing::writeAudioFile(src("b.mp3"), AudioFormat::mp3);
  db().connection().setBusyTimeout(50);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const auto r = ingest({inDir()});
  sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(other);

  EXPECT_TRUE(r.added.empty());
  EXPECT_EQ(r.failed, 0);
  EXPECT_EQ(r.stopped.code(), Status::Code::busy) << r.stopped.message();
  EXPECT_EQ(r.notReached, 2);
  EXPECT_EQ(db().count("tracks"), 0);
  // Once the catalogue is free the same files go in.
  EXPECT_EQ(ingest({inDir()}).added.size(), 2u);
}

TEST_F(ImportTest, ACopyIsReusedOnlyWhenItHoldsTheSameBytes) {
  const fs::path root = dir_ / "Media";
  const Importer::Options copy{.mediaRoot = root, .copyFiles = true};
  AudioTags tags;
  tags.artist = "Floorplan";
  tags.album = "Victorious";
  tags.title = "Song A";
  testing::writeAudioFile(src("a/01 Intro.mp3"), AudioFormat::mp3, tags);
  tags.title = "Song B";  // as long as A's: the same size, other bytes
  testing::writeAudioFile(src("b/01 Intro.mp3"), AudioFormat::mp3, tags);
  ASSERT_EQ(fs::file_size(src("a/01 Intro.mp3")), fs::file_size(src("b/01 Intro.mp3")));
  const fs::path folder = root / "Floorplan" / "Victorious";

  ASSERT_EQ(ingest({src("a/01 Intro.mp3")}, copy).added.size(), 1u);
  const auto other = ingest({src("b/01 Intro.mp3")}, copy);
  ASSERT_EQ(other.added.size(), 1u);
  EXPECT_EQ(field(other.added[0], "path"), (folder / "01 Intro 1.mp3").string());
  EXPECT_EQ(field(other.added[0], "title"), "Song B");
  // The same song again reuses its copy.
  EXPECT_EQ(ingest({src("a/01 Intro.mp3")}, copy).dupes, 1);
  EXPECT_FALSE(fs::exists(folder / "01 Intro 2.mp3"));
}

// A copy cut short by a kill: its partial file must never become a track,
// and the next copy into that folder clears it away.
TEST_F(ImportTest, UnfinishedCopiesAreNeverTracksAndAreCleanedUp) {
  const fs::path root = dir_ / "Media";
  const fs::path folder = root / "Unknown Artist" / "Unknown Album";
  const pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  const fs::path killed = folder / (".orvel-copy-song.mp3.partial-" + std::to_string(gone));
  writeBytes(killed, testing::audioBody(AudioFormat::mp3));
  // What an older version left: the audio extension kept at the end.
  writeBytes(folder / ".orvel-copy-older.mp3", testing::audioBody(AudioFormat::mp3));
  EXPECT_TRUE(ingest({root}).added.empty());
  EXPECT_TRUE(Importer::isSkipped(".orvel-copy-older.mp3"));

  testing::writeAudioFile(src("song.mp3"), AudioFormat::mp3);
  const auto r = ingest({src("song.mp3")}, {.mediaRoot = root, .copyFiles = true});
  ASSERT_EQ(r.added.size(), 1u);
  EXPECT_FALSE(fs::exists(killed));
  EXPECT_EQ(field(r.added[0], "path"), (folder / "song.mp3").string());
}

TEST_F(ImportTest, WhatHoldsNoAudioIsNamedWithTheReason) {
  writeBytes(src("notes.xml"), "<plist/>");
  writeBytes(src("docs/readme.txt"), "hello");
  writeBytes(src("fake/notes.mp3"), "not audio at all");
  testing::writeAudioFile(src("fake/real.mp3"), AudioFormat::mp3);
  Importer::Options opt;
  opt.whyNotAudio = [](const fs::path& p) -> std::optional<std::string> {
    if (p.filename() == "notes.mp3") return "no audio in it";
    return std::nullopt;
  };
  const auto r = ingest({src("notes.xml"), src("docs"), src("fake")}, opt);
  EXPECT_EQ(r.added.size(), 1u);
  ASSERT_EQ(r.failures.size(), 3u);
  EXPECT_EQ(r.failures[0].path, src("notes.xml").string());
  EXPECT_THAT(r.failures[0].reason, HasSubstr("not an audio file Orvel imports (mp3, m4a"));
  EXPECT_EQ(r.failures[1].path, src("docs").string());
  EXPECT_THAT(r.failures[1].reason, HasSubstr("no audio files in it"));
  EXPECT_EQ(r.failures[2].reason, "no audio in it");
}

// A folder the user cannot read is named, not passed over. As root every
// folder is readable, so the walk then runs in a child that has given up
// root for the unprivileged "nobody".
TEST_F(ImportTest, AnUnreadableFolderIsNamed) {
  testing::writeAudioFile(src("open/a.mp3"), AudioFormat::mp3);
  testing::writeAudioFile(src("shut/b.mp3"), AudioFormat::mp3);
  fs::permissions(src("shut"), fs::perms::none);
  for (const fs::path& p : {dir_.path(), inDir(), src("open")}) fs::permissions(p, fs::perms::all);
  int pipeFd[2];
  ASSERT_EQ(pipe(pipeFd), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(pipeFd[0]);
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(3);
    const auto found = Importer::expandReporting(std::vector<fs::path>{inDir()});
    std::string report = std::to_string(found.files.size()) + "\n";
    for (const auto& problem : found.problems) report += problem.path + "|" + problem.reason + "\n";
    if (write(pipeFd[1], report.data(), report.size()) < 0) _exit(4);
    _exit(0);
  }
  close(pipeFd[1]);
  std::string report;
  char buffer[512];
  for (ssize_t n; (n = read(pipeFd[0], buffer, sizeof buffer)) > 0;)
    report.append(buffer, static_cast<size_t>(n));
  close(pipeFd[0]);
  int status = 0;
  waitpid(child, &status, 0);
  fs::permissions(src("shut"), fs::perms::owner_all);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_THAT(report, ::testing::StartsWith("1\n"));
  EXPECT_THAT(report, HasSubstr(src("shut").string() + "|cannot read this folder: "));
}

TEST_F(ImportTest, CancelStopsBetweenFilesAndKeepsWhatWasAdded) {
  for (int i = 0; i < 6; ++i)
    testing::writeAudioFile(src(std::to_string(i) + ".wav"), AudioFormat::wav);
  std::atomic<bool> stop{false};
  Importer::Options opt;
  opt.cancel = &stop;
  opt.onProgress = [&](const Importer::Progress& p) {
    if (p.done == 3) stop = true;
  };
  const auto r = ingest({inDir()}, opt);
  EXPECT_EQ(r.added.size(), 4u);  // the file being read when asked is finished
  EXPECT_EQ(r.notReached, 2);
  EXPECT_EQ(db().count("tracks"), 4);
}

// A process killed in the middle of a big import keeps every track it had
// reported as added.
TEST_F(ImportTest, AKilledImportKeepsEveryReportedTrack) {
  for (int i = 0; i < 600; ++i)
    testing::writeAudioFile(src("f/" + std::to_string(i) + ".mp3"), AudioFormat::mp3);
  db();  // create the catalogue before forking
  const fs::path reported = dir_ / "reported";
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    OrvelDB own(dbPath());
    Importer::Options opt;
    opt.onProgress = [&](const Importer::Progress& p) {
      std::ofstream(reported) << p.result->added.size();
      // In the middle of a batch, with rows read but not yet written.
      if (p.done == 317) ::kill(::getpid(), SIGKILL);
    };
    Importer::ingest(std::vector<fs::path>{src("f")}, own, opt);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  int64_t said = 0;
  std::ifstream(reported) >> said;
  EXPECT_GE(said, 100);
  EXPECT_GE(reopen().count("tracks"), said);
  EXPECT_LE(db().count("tracks"), 317);
}

}  // namespace
}  // namespace orvel
