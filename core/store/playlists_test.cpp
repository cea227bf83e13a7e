#include <gmock/gmock.h>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PlaylistsTest : public testing::StoreTest {
 protected:
  std::vector<int64_t> tracks(int n) {
    std::vector<int64_t> ids;
    for (int i = 0; i < n; ++i) ids.push_back(add("/m/t" + std::to_string(i) + ".mp3"));
    return ids;
  }
  int64_t crate(const std::string& name, std::optional<int64_t> parent = std::nullopt) {
    return db().create(name, parent, "crate").value_or(-1);
  }
  // Every row of the tree and every member row, for before/after comparisons.
  std::string dump() {
    std::string out;
    Statement st = db().prepare(
        "SELECT id, source_id, parent_id, name, kind, color FROM playlists ORDER BY id");
    while (st.step())
      for (int c = 0; c < 6; ++c) out += (st.isNull(c) ? "∅" : st.text(c)) + (c < 5 ? "|" : "\n");
    Statement m = db().prepare(
        "SELECT playlist_id, track_id, position FROM playlist_tracks ORDER BY playlist_id, "
        "position, rowid");
    while (m.step()) out += m.text(0) + ":" + m.text(1) + "@" + m.text(2) + "\n";
    Statement s = db().prepare("SELECT playlist_id, rules_json FROM smart_playlists ORDER BY 1");
    while (s.step()) out += "smart " + s.text(0) + " " + s.text(1) + "\n";
    return out;
  }
};

TEST_F(PlaylistsTest, TreeByPathAndMovesThatWouldLoopAreRefused) {
  const int64_t sets = crate("Sets");
  const int64_t year = crate("2026", sets);
  const int64_t warm = crate("Warm-up", year);
  const int64_t other = db().create("Other", std::nullopt).value();
  EXPECT_EQ(db().playlistKind(other), "playlist");
  EXPECT_EQ(db().playlistByPath("Sets / 2026 / Warm-up"), warm);
  EXPECT_FALSE(db().playlistByPath("2026 / Warm-up"));  // paths start at the top
  EXPECT_EQ(db().playlistPath(warm), "Sets / 2026 / Warm-up");
  EXPECT_TRUE(db().isDescendant(warm, sets));
  EXPECT_FALSE(db().isDescendant(sets, warm));

  const std::string before = dump();
  EXPECT_FALSE(db().setPlaylistParent(sets, sets));
  EXPECT_FALSE(db().setPlaylistParent(sets, warm));
  EXPECT_FALSE(db().setPlaylistParent(sets, 999));
  EXPECT_EQ(dump(), before);
  EXPECT_EQ(db().journal().operations(50).size(), 4u);  // only the four creations

  const auto moved = db().setPlaylistParent(year, other);
  ASSERT_TRUE(moved);
  EXPECT_EQ(db().playlistPath(warm), "Other / 2026 / Warm-up");
  db().journal().undo(*moved);
  EXPECT_EQ(db().playlistPath(warm), "Sets / 2026 / Warm-up");

  const auto tree = db().crateTree();
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree[1].name, "Sets");
  EXPECT_EQ(tree[1].sourceName, "orvel");
  ASSERT_EQ(tree[1].children.size(), 1u);
  EXPECT_EQ(tree[1].children[0].children[0].id, warm);

  // A cycle already in the data (from an old bug or another tool) neither
  // hangs the walks nor loses its nodes.
  db().execChecked("UPDATE playlists SET parent_id = " + std::to_string(warm) +
                   " WHERE id = " + std::to_string(sets));
  EXPECT_FALSE(db().isDescendant(warm, other));
  EXPECT_FALSE(db().playlistByPath("Sets"));
  size_t nodes = 0;
  std::function<void(const std::vector<CrateNode>&)> countAll = [&](const auto& level) {
    for (const auto& n : level) {
      ++nodes;
      countAll(n.children);
    }
  };
  countAll(db().crateTree());
  EXPECT_EQ(nodes, 4u);
}

TEST_F(PlaylistsTest, DeletingACrateTreeUndoesEveryRowAndMemberInOrder) {
  const auto t = tracks(40);
  const int64_t top = crate("Techno");
  const int64_t mid = crate("Peak", top);
  const int64_t leaf = crate("Deep", mid);
  const int64_t keep = crate("Elsewhere");
  db().setPlaylistColor(mid, "#FF0000");
  db().addToPlaylist(std::vector<int64_t>(t.begin(), t.begin() + 20), top);
  db().addToPlaylist(std::vector<int64_t>{t[35], t[3], t[30]}, mid);
  db().addToPlaylist(std::vector<int64_t>(t.rbegin(), t.rbegin() + 15), leaf);
  db().addToPlaylist(std::vector<int64_t>{t[0]}, keep);
  SmartPlaylist rules;
  rules.rules = {SmartRule::make("title", "contains", "x")};
  db().saveSmartRules(leaf, rules);
  const std::string before = dump();

  const auto opId = db().deletePlaylist(top);
  ASSERT_TRUE(opId);
  EXPECT_FALSE(db().playlist(leaf));
  EXPECT_THAT(db().orderedTrackIds(leaf), IsEmpty());
  EXPECT_EQ(db().orderedTrackIds(keep), std::vector<int64_t>{t[0]});
  EXPECT_FALSE(db().loadSmartRules(leaf));
  // More than 30 tracks went: a snapshot was taken first.
  ASSERT_EQ(db().snapshots().list().size(), 1u);
  EXPECT_EQ(db().snapshots().list()[0].reason, "before deleting Techno");

  EXPECT_EQ(db().journal().lastUndoable()->id, *opId);
  db().journal().undo(*opId);
  EXPECT_EQ(reopen().crateTree().size(), 2u);
  EXPECT_EQ(dump(), before);
  EXPECT_THAT(db().orderedTrackIds(mid), ElementsAre(t[35], t[3], t[30]));

  db().journal().redo(*opId);
  EXPECT_FALSE(db().playlist(mid));
  EXPECT_EQ(db().playlistRowCount(top), 0);
}

TEST_F(PlaylistsTest, MembersAddRemoveReorderAndUndo) {
  const auto t = tracks(6);
  const int64_t p = crate("Set");
  ASSERT_TRUE(db().addToPlaylist(std::vector<int64_t>{t[2], t[0], t[2]}, p));
  ASSERT_TRUE(db().addToPlaylist(std::vector<int64_t>{t[0], t[4], t[1]}, p));
  EXPECT_THAT(db().orderedTrackIds(p), ElementsAre(t[2], t[0], t[4], t[1]));
  EXPECT_EQ(db().playlistPaths(p).front(), "/m/t2.mp3");

  const auto reordered = db().reorderPlaylist(p, std::vector<int64_t>{t[1], t[4], t[2], t[0]});
  ASSERT_TRUE(reordered);
  Statement st = db().prepare(
      "SELECT track_id, position FROM playlist_tracks WHERE playlist_id = ? ORDER BY position");
  st.bind(1, p);
  std::vector<int64_t> positions;
  while (st.step()) positions.push_back(st.int64(1));
  EXPECT_THAT(positions, ElementsAre(0, 1, 2, 3));

  const auto removed = db().removeFromPlaylist(std::vector<int64_t>{t[4], t[5]}, p);
  ASSERT_TRUE(removed);
  EXPECT_THAT(db().orderedTrackIds(p), ElementsAre(t[1], t[2], t[0]));
  db().journal().undo(*removed);
  EXPECT_THAT(db().orderedTrackIds(p), ElementsAre(t[1], t[4], t[2], t[0]));
  db().journal().undo(*reordered);
  EXPECT_THAT(db().orderedTrackIds(p), ElementsAre(t[2], t[0], t[4], t[1]));
  EXPECT_EQ(db().playlistsContaining(t[4]).size(), 1u);

  // Equal positions (as older imports wrote them) list in insertion order.
  const int64_t q = crate("Import");
  for (int64_t id : {t[3], t[1], t[5]})
    db().execChecked("INSERT INTO playlist_tracks VALUES(" + std::to_string(q) + ", " +
                     std::to_string(id) + ", 0)");
  EXPECT_THAT(db().orderedTrackIds(q), ElementsAre(t[3], t[1], t[5]));
  const auto added = db().addToPlaylist(std::vector<int64_t>{t[0]}, q);
  db().journal().undo(*added);
  EXPECT_THAT(db().orderedTrackIds(q), ElementsAre(t[3], t[1], t[5]));

  EXPECT_FALSE(db().addToPlaylist(std::vector<int64_t>{t[0]}, 999));
  EXPECT_EQ(db().lastError(), "no playlist with id 999");
}

TEST_F(PlaylistsTest, RenameColourAndTheFixedSources) {
  const int64_t p = crate("Old");
  const auto renamed = db().renamePlaylist(p, "New");
  ASSERT_TRUE(renamed);
  EXPECT_EQ(db().journal().lastUndoable()->opName, "Rename Crate");
  db().journal().undo(*renamed);
  EXPECT_EQ(db().playlist(p)->name, "Old");
  EXPECT_FALSE(db().renamePlaylist(p, ""));

  db().setPlaylistColor(p, "#00FF00");
  EXPECT_EQ(db().playlistColors().at(p), "#00FF00");

  const auto project = db().newProject("EP");
  const auto release = db().newRelease("LP");
  ASSERT_TRUE(project && release);
  EXPECT_EQ(db().projects().front().id, *project);
  EXPECT_EQ(db().releases().front().id, *release);
  const int64_t t = add("/m/x.mp3");
  db().addToPlaylist(std::vector<int64_t>{t}, *project);
  EXPECT_EQ(db().studioProject(t)->name, "EP");
  EXPECT_EQ(db().writablePlaylists().front().sourceName, "orvel");
  db().addToPlaylist(std::vector<int64_t>{t}, p);
  EXPECT_EQ(db().playlistsForDJExport(1).size(), 1u);
  EXPECT_THAT(db().playlistsForDJExport(0), IsEmpty());
}

TEST_F(PlaylistsTest, UndoingMovesOutOfOrderNeverMakesALoop) {
  const int64_t a = crate("A");
  const int64_t b = crate("B");
  db().setPlaylistParent(a, b);
  const auto toTop = db().setPlaylistParent(a, std::nullopt);
  ASSERT_TRUE(db().setPlaylistParent(b, a));
  db().journal().undo(*toTop);  // would put A back under B, now below A
  EXPECT_FALSE(db().isDescendant(a, a));
  EXPECT_EQ(db().playlistPath(b), "A / B");
}

TEST_F(PlaylistsTest, ANameThatIsNotUtf8SurvivesDeletionAndUndo) {
  const int64_t p = crate("x");
  db().execChecked("UPDATE playlists SET name = CAST(x'436166e9' AS TEXT) WHERE id = " +
                   std::to_string(p));  // "Café" in Latin-1
  const auto deleted = db().deletePlaylist(p);
  ASSERT_TRUE(deleted);
  db().journal().undo(*deleted);
  EXPECT_EQ(db().playlist(p)->name, "Caf\xe9");
}

TEST_F(PlaylistsTest, UndoingADeletionNeverOverwritesANewerNodeWithTheSameId) {
  crate("A");
  const int64_t b = crate("B");
  const auto deleted = db().deletePlaylist(b);
  const int64_t c = crate("C");  // SQLite would hand out b's id again
  EXPECT_NE(c, b);
  db().journal().undo(*deleted);
  EXPECT_EQ(db().playlist(b)->name, "B");
  EXPECT_EQ(db().playlist(c)->name, "C");
}

}  // namespace
}  // namespace orvel
