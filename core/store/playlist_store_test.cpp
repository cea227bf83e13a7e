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
    return db().playlists().create(name, parent, "crate").value_or(-1);
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
  const int64_t other = db().playlists().create("Other", std::nullopt).value();
  EXPECT_EQ(db().playlists().playlistKind(other), "playlist");
  EXPECT_EQ(db().playlists().playlistByPath("Sets / 2026 / Warm-up"), warm);
  EXPECT_FALSE(db().playlists().playlistByPath("2026 / Warm-up"));  // paths start at the top
  EXPECT_EQ(db().playlists().playlistPath(warm), "Sets / 2026 / Warm-up");
  EXPECT_TRUE(db().playlists().isDescendant(warm, sets));
  EXPECT_FALSE(db().playlists().isDescendant(sets, warm));

  const std::string before = dump();
  EXPECT_FALSE(db().playlists().setPlaylistParent(sets, sets));
  EXPECT_FALSE(db().playlists().setPlaylistParent(sets, warm));
  EXPECT_FALSE(db().playlists().setPlaylistParent(sets, 999));
  EXPECT_EQ(dump(), before);
  EXPECT_EQ(db().journal().operations(50).size(), 4u);  // only the four creations

  const auto moved = db().playlists().setPlaylistParent(year, other);
  ASSERT_TRUE(moved);
  EXPECT_EQ(db().playlists().playlistPath(warm), "Other / 2026 / Warm-up");
  ASSERT_TRUE(db().journal().undo(*moved));
  EXPECT_EQ(db().playlists().playlistPath(warm), "Sets / 2026 / Warm-up");

  const auto tree = db().playlists().crateTree();
  ASSERT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree[1].name, "Sets");
  EXPECT_EQ(tree[1].sourceName, "orvel");
  ASSERT_EQ(tree[1].children.size(), 1u);
  EXPECT_EQ(tree[1].children[0].children[0].id, warm);

  // A cycle already in the data (from an old bug or another tool) neither
  // hangs the walks nor loses its nodes.
  db().execChecked("UPDATE playlists SET parent_id = " + std::to_string(warm) +
                   " WHERE id = " + std::to_string(sets));
  EXPECT_FALSE(db().playlists().isDescendant(warm, other));
  EXPECT_FALSE(db().playlists().playlistByPath("Sets"));
  size_t nodes = 0;
  std::function<void(const std::vector<CrateNode>&)> countAll = [&](const auto& level) {
    for (const auto& n : level) {
      ++nodes;
      countAll(n.children);
    }
  };
  countAll(db().playlists().crateTree());
  EXPECT_EQ(nodes, 4u);
}

TEST_F(PlaylistsTest, DeletingACrateTreeUndoesEveryRowAndMemberInOrder) {
  const auto t = tracks(40);
  const int64_t top = crate("Techno");
  const int64_t mid = crate("Peak", top);
  const int64_t leaf = crate("Deep", mid);
  const int64_t keep = crate("Elsewhere");
  ASSERT_TRUE(db().playlists().setPlaylistColor(mid, "#FF0000"));
  ASSERT_TRUE(db().playlists().addToPlaylist(std::vector<int64_t>(t.begin(), t.begin() + 20), top));
  ASSERT_TRUE(db().playlists().addToPlaylist(std::vector<int64_t>{t[35], t[3], t[30]}, mid));
  ASSERT_TRUE(
      db().playlists().addToPlaylist(std::vector<int64_t>(t.rbegin(), t.rbegin() + 15), leaf));
  ASSERT_TRUE(db().playlists().addToPlaylist(std::vector<int64_t>{t[0]}, keep));
  SmartPlaylist rules;
  rules.rules = {SmartRule::make("title", "contains", "x")};
  Statement smart = db().prepare("INSERT INTO smart_playlists VALUES(?, ?, 0)");
  ASSERT_EQ(smart.bind(1, leaf).bind(2, rules.toJSON()).stepCode(), SQLITE_DONE);
  const std::string before = dump();

  const auto opId = db().playlists().deletePlaylist(top);
  ASSERT_TRUE(opId);
  EXPECT_FALSE(db().playlists().playlist(leaf));
  EXPECT_THAT(db().playlists().orderedTrackIds(leaf), IsEmpty());
  EXPECT_EQ(db().playlists().orderedTrackIds(keep), std::vector<int64_t>{t[0]});
  EXPECT_FALSE(db().smart().loadSmartRules(leaf));
  // More than 30 tracks went: a snapshot was taken first.
  ASSERT_EQ(db().snapshots().list().size(), 1u);
  EXPECT_EQ(db().snapshots().list()[0].reason, "before deleting Techno");

  EXPECT_EQ(db().journal().lastUndoable()->id, *opId);
  ASSERT_TRUE(db().journal().undo(*opId));
  EXPECT_EQ(reopen().playlists().crateTree().size(), 2u);
  EXPECT_EQ(dump(), before);
  EXPECT_THAT(db().playlists().orderedTrackIds(mid), ElementsAre(t[35], t[3], t[30]));

  ASSERT_TRUE(db().journal().redo(*opId));
  EXPECT_FALSE(db().playlists().playlist(mid));
  EXPECT_EQ(db().playlists().playlistRowCount(top), 0);
}

TEST_F(PlaylistsTest, MembersAddRemoveReorderAndUndo) {
  const auto t = tracks(6);
  const int64_t p = crate("Set");
  ASSERT_TRUE(db().playlists().addToPlaylist(std::vector<int64_t>{t[2], t[0], t[2]}, p));
  ASSERT_TRUE(db().playlists().addToPlaylist(std::vector<int64_t>{t[0], t[4], t[1]}, p));
  EXPECT_THAT(db().playlists().orderedTrackIds(p), ElementsAre(t[2], t[0], t[4], t[1]));

  const auto reordered =
      db().playlists().reorderPlaylist(p, std::vector<int64_t>{t[1], t[4], t[2], t[0]});
  ASSERT_TRUE(reordered);
  Statement st = db().prepare(
      "SELECT track_id, position FROM playlist_tracks WHERE playlist_id = ? ORDER BY position");
  st.bind(1, p);
  std::vector<int64_t> positions;
  while (st.step()) positions.push_back(st.int64(1));
  EXPECT_THAT(positions, ElementsAre(0, 1, 2, 3));

  const auto removed = db().playlists().removeFromPlaylist(std::vector<int64_t>{t[4], t[5]}, p);
  ASSERT_TRUE(removed);
  EXPECT_THAT(db().playlists().orderedTrackIds(p), ElementsAre(t[1], t[2], t[0]));
  ASSERT_TRUE(db().journal().undo(*removed));
  EXPECT_THAT(db().playlists().orderedTrackIds(p), ElementsAre(t[1], t[4], t[2], t[0]));
  ASSERT_TRUE(db().journal().undo(*reordered));
  EXPECT_THAT(db().playlists().orderedTrackIds(p), ElementsAre(t[2], t[0], t[4], t[1]));
  EXPECT_EQ(db().playlists().playlistsContaining(t[4]).size(), 1u);

  // Equal positions (as older imports wrote them) list in insertion order.
  const int64_t q = crate("Import");
  for (int64_t id : {t[3], t[1], t[5]})
    db().execChecked("INSERT INTO playlist_tracks VALUES(" + std::to_string(q) + ", " +
                     std::to_string(id) + ", 0)");
  EXPECT_THAT(db().playlists().orderedTrackIds(q), ElementsAre(t[3], t[1], t[5]));
  const auto added = db().playlists().addToPlaylist(std::vector<int64_t>{t[0]}, q);
  ASSERT_TRUE(db().journal().undo(*added));
  EXPECT_THAT(db().playlists().orderedTrackIds(q), ElementsAre(t[3], t[1], t[5]));

  const auto missing = db().playlists().addToPlaylist(std::vector<int64_t>{t[0]}, 999);
  EXPECT_FALSE(missing);
  EXPECT_EQ(missing.error(), "no playlist with id 999");
  EXPECT_EQ(missing.status().code(), Status::Code::notFound);
}

TEST_F(PlaylistsTest, RenameAndColour) {
  const int64_t p = crate("Old");
  const auto renamed = db().playlists().renamePlaylist(p, "New");
  ASSERT_TRUE(renamed);
  EXPECT_EQ(db().journal().lastUndoable()->opName, "Rename Crate");
  ASSERT_TRUE(db().journal().undo(*renamed));
  EXPECT_EQ(db().playlists().playlist(p)->name, "Old");
  EXPECT_FALSE(db().playlists().renamePlaylist(p, ""));

  ASSERT_TRUE(db().playlists().setPlaylistColor(p, "#00FF00"));
  EXPECT_EQ(db().playlists().playlistColors().at(p), "#00FF00");
}

TEST_F(PlaylistsTest, UndoingMovesOutOfOrderNeverMakesALoop) {
  const int64_t a = crate("A");
  const int64_t b = crate("B");
  ASSERT_TRUE(db().playlists().setPlaylistParent(a, b));
  const auto toTop = db().playlists().setPlaylistParent(a, std::nullopt);
  ASSERT_TRUE(db().playlists().setPlaylistParent(b, a));
  ASSERT_TRUE(db().journal().undo(*toTop));  // would put A back under B, now below A
  EXPECT_FALSE(db().playlists().isDescendant(a, a));
  EXPECT_EQ(db().playlists().playlistPath(b), "A / B");
}

TEST_F(PlaylistsTest, ANameThatIsNotUtf8SurvivesDeletionAndUndo) {
  const int64_t p = crate("x");
  db().execChecked("UPDATE playlists SET name = CAST(x'436166e9' AS TEXT) WHERE id = " +
                   std::to_string(p));  // "Café" in Latin-1
  const auto deleted = db().playlists().deletePlaylist(p);
  ASSERT_TRUE(deleted);
  ASSERT_TRUE(db().journal().undo(*deleted));
  EXPECT_EQ(db().playlists().playlist(p)->name, "Caf\xe9");
}

TEST_F(PlaylistsTest, UndoingADeletionNeverOverwritesANewerNodeWithTheSameId) {
  crate("A");
  const int64_t b = crate("B");
  const auto deleted = db().playlists().deletePlaylist(b);
  const int64_t c = crate("C");  // SQLite would hand out b's id again
  EXPECT_NE(c, b);
  ASSERT_TRUE(db().journal().undo(*deleted));
  EXPECT_EQ(db().playlists().playlist(b)->name, "B");
  EXPECT_EQ(db().playlists().playlist(c)->name, "C");
}

}  // namespace
}  // namespace orvel
