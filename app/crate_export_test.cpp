#include "app/crate_export.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <QFile>
#include <QXmlStreamReader>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "app/app_paths.h"
#include "core/formats/serato_library.h"
#include "core/testing/serato_bytes.h"
#include "core/testing/store_fixture.h"

namespace orvel::app {
namespace {
namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Outcome = CrateExport::SendResult::Outcome;

std::vector<std::string> entries(const fs::path& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(dir, ec)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::string readFile(const fs::path& p) {
  std::ostringstream out;
  out << std::ifstream(p, std::ios::binary).rdbuf();
  return out.str();
}

class CrateExportTest : public orvel::testing::StoreTest {
 protected:
  int64_t track(const std::string& path) {
    NewTrack t;
    t.path = path;
    return insert(t);
  }
  int64_t insert(const NewTrack& t) {
    auto id = db().tracks().orvelSourceId();
    if (id) id = db().tracks().insertImported(t, *id);
    EXPECT_TRUE(id) << id.error();
    return id.value_or(-1);
  }
  int64_t crate(const std::string& name, std::optional<int64_t> parent = std::nullopt) {
    const auto id = db().playlists().create(name, parent, "crate");
    EXPECT_TRUE(id) << id.error();
    return id.value_or(-1);
  }
  void members(int64_t crate, std::vector<int64_t> ids) {
    const auto op = db().playlists().addToPlaylist(ids, crate);
    ASSERT_TRUE(op) << op.error();
  }
  // A Serato library folder as Serato leaves it: a database and a crate folder.
  fs::path seratoFolder() {
    fs::path dir = dir_ / "_Serato_";
    fs::create_directories(dir / "Subcrates");
    testing::writeBytes(dir / SeratoLibrary::kDatabaseFile, testing::seratoDatabase({}));
    return dir;
  }
  // Sending runs the real script; it needs Python and a machine without Serato.
  bool canSend() const { return AppPaths::pythonWorks() && !CrateExport::seratoRunning(); }
};

TEST_F(CrateExportTest, SendWithoutSeratoFolderWritesNothing) {
  const int64_t a = crate("A");
  const fs::path bare = dir_ / "_Serato_";
  fs::create_directories(bare);

  const auto result = CrateExport::sendToSerato(dbPath(), a, bare);
  EXPECT_EQ(result.outcome, Outcome::notInstalled);
  EXPECT_EQ(result.message, "Serato is not installed on this Mac");
  EXPECT_TRUE(entries(bare).empty());
  // The default folder is under the (test) home, where there is no Serato either.
  EXPECT_EQ(CrateExport::sendToSerato(dbPath(), a).outcome, Outcome::notInstalled);
  EXPECT_FALSE(fs::exists(orvel::locations::home() / "Music"));
}

TEST_F(CrateExportTest, NestedCrateReadsBackInSeratoWithItsOrder) {
  if (!canSend()) GTEST_SKIP() << "needs python3 and Serato not running";
  const std::string odd = "/music/Deep House/Künstler – Straße & Co.mp3";
  const int64_t t1 = track("/music/a.mp3");
  const int64_t t2 = track("/music/b c.flac");
  const int64_t t3 = track(odd);
  const int64_t gone = track("/music/removed.mp3");
  const int64_t a = crate("A");
  const int64_t b = crate("B", a);
  members(a, {t1});
  members(b, {t3, t1, gone, t2});
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{gone}));
  const fs::path serato = seratoFolder();

  const auto sent = CrateExport::sendToSerato(dbPath(), b, serato);
  ASSERT_EQ(sent.outcome, Outcome::sent) << sent.message;
  EXPECT_THAT(sent.output, StartsWith("Sent \"A / B\": 3 tracks -> "));
  EXPECT_EQ(sent.message, sent.output);
  EXPECT_EQ(fs::path(sent.output.substr(sent.output.find("-> ") + 3)),
            serato / "Subcrates/A%%B.crate");

  auto library = SeratoLibrary::load(serato);
  ASSERT_EQ(library.crates.size(), 1U);
  EXPECT_THAT(library.crates[0].nameChain, ElementsAre("A", "B"));
  EXPECT_THAT(library.crates[0].trackPaths, ElementsAre(odd, "/music/a.mp3", "/music/b c.flac"));

  // A second send replaces the crate whole and leaves no temporary file.
  ASSERT_TRUE(db().playlists().reorderPlaylist(b, std::vector<int64_t>{t2, t3}));
  ASSERT_EQ(CrateExport::sendToSerato(dbPath(), b, serato).outcome, Outcome::sent);
  EXPECT_THAT(entries(serato / "Subcrates"), ElementsAre(".orvel-sent.json", "A%%B.crate"));
  library = SeratoLibrary::load(serato);
  EXPECT_THAT(library.crates[0].trackPaths, ElementsAre("/music/b c.flac", odd));

  // A file Orvel did not write is the user's choice: refused, then replaced
  // on request with every earlier copy kept.
  const fs::path file = serato / "Subcrates/A%%B.crate";
  std::ofstream(file, std::ios::trunc) << "not ours";
  const auto refused = CrateExport::sendToSerato(dbPath(), b, serato);
  EXPECT_EQ(refused.outcome, Outcome::refused);
  EXPECT_THAT(refused.message, HasSubstr("--replace"));
  EXPECT_EQ(readFile(file), "not ours");
  const auto replaced = CrateExport::sendToSerato(dbPath(), b, serato, true);
  ASSERT_EQ(replaced.outcome, Outcome::sent) << replaced.message;
  EXPECT_THAT(replaced.output, HasSubstr("(the old file is kept as A%%B.crate.bak)"));
  std::ofstream(file, std::ios::trunc) << "nor this";
  ASSERT_EQ(CrateExport::sendToSerato(dbPath(), b, serato, true).outcome, Outcome::sent);
  EXPECT_EQ(readFile(file.string() + ".bak"), "not ours");
  EXPECT_EQ(readFile(file.string() + ".2.bak"), "nor this");
  EXPECT_THAT(SeratoLibrary::load(serato).crates[0].trackPaths,
              ElementsAre("/music/b c.flac", odd));
}

TEST_F(CrateExportTest, UnknownCrateFailsWithTheScriptsReason) {
  if (!canSend()) GTEST_SKIP() << "needs python3 and Serato not running";
  crate("A");
  const fs::path serato = seratoFolder();

  const auto result = CrateExport::sendToSerato(dbPath(), 4242, serato);
  EXPECT_EQ(result.outcome, Outcome::failed);
  EXPECT_THAT(result.message, StartsWith("Send failed: "));
  EXPECT_THAT(result.message, HasSubstr("4242"));
  EXPECT_TRUE(entries(serato / "Subcrates").empty());
}

TEST(CrateExportRun, ExitStatusAndBothStreamsComeBack) {
  const auto shell = CrateExport::runShell("echo out; echo err >&2; exit 3");
  EXPECT_TRUE(shell.started);
  EXPECT_EQ(shell.exitCode, 3);
  EXPECT_EQ(shell.out, "out\n");
  EXPECT_EQ(shell.err, "err\n");

  const auto missing = CrateExport::run("/no/such/program", {"x"});
  EXPECT_FALSE(missing.started);
  EXPECT_EQ(missing.exitCode, -1);
  EXPECT_FALSE(missing.err.empty());
}

// ---- the collection XML ------------------------------------------------------

struct Element {
  std::string name;
  std::map<std::string, std::string> attrs;
  std::vector<Element> children;

  std::string operator[](const std::string& key) const {
    const auto at = attrs.find(key);
    return at == attrs.end() ? "<absent>" : at->second;
  }
  std::vector<const Element*> all(const std::string& childName) const {
    std::vector<const Element*> out;
    for (const Element& c : children)
      if (c.name == childName) out.push_back(&c);
    return out;
  }
};

Element readElement(QXmlStreamReader& xml) {
  Element e{xml.name().toString().toStdString(), {}, {}};
  for (const auto& a : xml.attributes())
    e.attrs[a.name().toString().toStdString()] = a.value().toString().toStdString();
  while (xml.readNextStartElement()) e.children.push_back(readElement(xml));
  return e;
}

std::optional<Element> parse(const fs::path& file) {
  QFile in(QString::fromStdString(file.string()));
  if (!in.open(QIODevice::ReadOnly)) return std::nullopt;
  QXmlStreamReader xml(&in);
  if (!xml.readNextStartElement()) return std::nullopt;
  Element root = readElement(xml);
  if (xml.hasError()) return std::nullopt;
  return root;
}

class DjXmlExportTest : public CrateExportTest {
 protected:
  void SetUp() override {
    ASSERT_FALSE(db().execChecked(
        "INSERT INTO sources(name, imported_at) VALUES('rekordbox', 0), ('serato', 0)"));
    rekordbox_ = *db().scalarInt("SELECT id FROM sources WHERE name = 'rekordbox'");
    serato_ = *db().scalarInt("SELECT id FROM sources WHERE name = 'serato'");

    NewTrack song;
    song.path = "/music/My Song #1.mp3";
    song.title = "My Song";
    song.artist = "Artist";
    song.bpm = 124;
    song.key = "8A";
    song.durationMs = 241'900;
    song.year = "2019-05-01";
    song_ = insert(song);
    accented_ = track("/music/Ünïcode.flac");
    pathless_ = track("/music/pathless.mp3");
    ASSERT_FALSE(
        db().execChecked(fmt::format("UPDATE tracks SET path = '' WHERE id = {}", pathless_)));
    removed_ = track("/music/removed.mp3");
    ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{removed_}));

    // The rekordbox grid is stored first; Serato's must still win.
    Status stored =
        db().cues().replaceSourceCues(song_, rekordbox_, {}, std::vector<BeatAnchor>{{0, 100}});
    ASSERT_TRUE(stored) << stored.message();
    CueRow drop;
    drop.index = 0;
    drop.positionMs = 1500;
    drop.color = "#CC0000";
    drop.name = "Drop";
    CueRow loop;
    loop.index = 1;
    loop.kind = "loop";
    loop.positionMs = 30000;
    loop.lengthMs = 8000;
    loop.color = "#00FF7F";
    stored = db().cues().replaceSourceCues(song_, serato_, std::vector<CueRow>{drop, loop},
                                           std::vector<BeatAnchor>{{25, 124}, {60000, 125.5}});
    ASSERT_TRUE(stored) << stored.message();
    ASSERT_TRUE(db().cues().replaceAutoCues(song_, 500, 200000));

    sets_ = crate("Sets");
    warmUp_ = crate("Warm-up", sets_);
    peak_ = crate("Peak", sets_);
    other_ = crate("Other");
    members(sets_, {accented_});
    members(warmUp_, {song_, pathless_, removed_, accented_});
    members(peak_, {song_});
    members(other_, {removed_});
  }

  int64_t rekordbox_ = 0, serato_ = 0;
  int64_t song_ = 0, accented_ = 0, pathless_ = 0, removed_ = 0;
  int64_t sets_ = 0, warmUp_ = 0, peak_ = 0, other_ = 0;
};

TEST_F(DjXmlExportTest, CrateTreeBecomesFoldersAndPlaylistsOverOneCollection) {
  const fs::path file = dir_ / "export.xml";
  const auto result = CrateExport::exportXML(db(), std::vector<int64_t>{sets_}, file);
  ASSERT_FALSE(result.error) << *result.error;
  EXPECT_EQ(result.tracks, 2);
  EXPECT_EQ(result.playlists, 3);  // Sets' own tracks, Peak, Warm-up

  const auto root = parse(file);
  ASSERT_TRUE(root);
  EXPECT_EQ(root->name, "DJ_PLAYLISTS");
  const auto collection = root->all("COLLECTION");
  ASSERT_EQ(collection.size(), 1U);
  EXPECT_EQ((*collection[0])["Entries"], "2");
  std::map<std::string, const Element*> byId;
  for (const Element* t : collection[0]->all("TRACK")) byId[(*t)["TrackID"]] = t;
  ASSERT_EQ(byId.size(), 2U);

  const Element* top = root->all("PLAYLISTS").at(0)->all("NODE").at(0);
  EXPECT_EQ((*top)["Name"], "ROOT");
  EXPECT_EQ((*top)["Count"], "1");
  const Element& sets = top->children.at(0);
  EXPECT_EQ(sets["Type"], "0");
  EXPECT_EQ(sets["Count"], "3");
  std::vector<std::string> inside;
  for (const Element& n : sets.children) inside.push_back(n["Type"] + " " + n["Name"]);
  EXPECT_THAT(inside, ElementsAre("1 Sets", "1 Peak", "1 Warm-up"));
  const Element& warmUp = sets.children.at(2);
  EXPECT_EQ(warmUp["Entries"], "2");
  std::vector<std::string> keys;
  for (const Element* t : warmUp.all("TRACK")) keys.push_back((*t)["Key"]);
  EXPECT_THAT(keys, ElementsAre(std::to_string(song_), std::to_string(accented_)));
  for (const Element& node : sets.children)
    for (const Element* t : node.all("TRACK")) EXPECT_TRUE(byId.contains((*t)["Key"]));

  const Element& song = *byId.at(std::to_string(song_));
  EXPECT_EQ(song["Location"], "file://localhost/music/My%20Song%20%231.mp3");
  EXPECT_EQ(byId.at(std::to_string(accented_))->attrs.at("Location"),
            "file://localhost/music/%C3%9Cn%C3%AFcode.flac");
  EXPECT_EQ(song["Name"], "My Song");
  EXPECT_EQ(song["AverageBpm"], "124.00");
  EXPECT_EQ(song["TotalTime"], "241");
  EXPECT_EQ(song["Year"], "2019");
  EXPECT_EQ(song["Tonality"], "8A");
  EXPECT_EQ(song["Kind"], "MP3 File");

  std::vector<std::string> tempo;
  for (const Element* t : song.all("TEMPO")) tempo.push_back((*t)["Inizio"] + " " + (*t)["Bpm"]);
  EXPECT_THAT(tempo, ElementsAre("0.025 124.00", "60.000 125.50"));
  std::set<std::string> marks;
  for (const Element* m : song.all("POSITION_MARK")) {
    const Element& e = *m;
    marks.insert(e["Type"] + " " + e["Num"] + " " + e["Start"] + "-" + e["End"] + " " + e["Red"] +
                 "," + e["Green"] + "," + e["Blue"] + " " + e["Name"]);
  }
  EXPECT_THAT(marks, ::testing::UnorderedElementsAre("0 0 1.500-<absent> 204,0,0 Drop",
                                                     "4 1 30.000-38.000 0,255,127 ",
                                                     "0 -1 0.500-<absent> 63,185,80 AUTO IN",
                                                     "0 -1 200.000-<absent> 229,83,75 AUTO OUT"));
}

TEST_F(DjXmlExportTest, WholeTreeByDefaultAndRefusalsLeaveTheFileAlone) {
  const fs::path file = dir_ / "all.xml";
  const auto all = CrateExport::exportXML(db(), {}, file);
  ASSERT_FALSE(all.error) << *all.error;
  EXPECT_EQ(all.tracks, 2);  // Other holds only a removed track
  EXPECT_EQ(all.playlists, 4);
  const auto root = parse(file);
  ASSERT_TRUE(root);
  const Element* top = root->all("PLAYLISTS").at(0)->all("NODE").at(0);
  EXPECT_EQ((*top)["Count"], "2");
  EXPECT_EQ(top->children.at(0)["Name"], "Other");
  EXPECT_EQ(top->children.at(0)["Entries"], "0");

  const std::string before = readFile(file);
  const auto wrongName = CrateExport::exportXML(db(), {}, dir_ / "export.txt");
  EXPECT_EQ(wrongName.error, "The export file must end in .xml");
  EXPECT_FALSE(fs::exists(dir_ / "export.txt"));
  const auto unknown = CrateExport::exportXML(db(), std::vector<int64_t>{4242}, file);
  EXPECT_TRUE(unknown.error);
  EXPECT_EQ(readFile(file), before);
  const auto unwritable = CrateExport::exportXML(db(), {}, dir_ / "no/such/folder/x.xml");
  EXPECT_TRUE(unwritable.error);
}

}  // namespace
}  // namespace orvel::app
