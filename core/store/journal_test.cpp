#include "core/store/journal.h"

#include <gmock/gmock.h>

#include <regex>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using testing::StoreTest;

int applied(const Result<Journal::Applied>& r) {
  return r ? r->applied : -1;
}

TEST(JournalOpId, SlugIsLowerCaseDashedAndShort) {
  EXPECT_EQ(Journal::makeOpId("Rename Crate", 1763146000, 2891334017u),
            "1763146000-2891334017-rename-crate");
  EXPECT_EQ(Journal::slug("  Edit -- Title: \"Blue\"!"), "edit-title-blue");
  EXPECT_EQ(Journal::slug("Caf\xC3\xA9 Set"), "caf\xC3\xA9-set");
  EXPECT_EQ(Journal::slug("A very long operation name indeed"), "a-very-long-operation-na");
  EXPECT_EQ(Journal::makeOpId("?!…", 5, 7), "5-7-");
}

class JournalTest : public StoreTest {
 protected:
  Journal& journal() { return db().journal(); }
};

TEST_F(JournalTest, OperationsListNewestFirstWithOpIdBreakingTies) {
  Journal& j = journal();
  EXPECT_TRUE(std::regex_match(j.begin("Set Rating"), std::regex(R"(\d{10}-\d+-set-rating)")));
  ASSERT_TRUE(j.record("100-1-b", "B", "tracks", 1, "genre", "x", "y").isOk());
  ASSERT_TRUE(j.record("100-2-c", "C", "tracks", 1, "genre", "y", "z").isOk());
  ASSERT_TRUE(j.record("100-2-c", "C", "tracks", 2, "genre", "y", "z").isOk());
  db().execChecked("UPDATE history SET at = 100");  // all in the same second
  ASSERT_TRUE(j.record("099-9-a", "A", "tracks", 1, "genre", "w", "x").isOk());
  db().execChecked("UPDATE history SET at = 99 WHERE op_id = '099-9-a'");
  const auto ops = j.operations(10);
  ASSERT_EQ(ops.size(), 3u);
  EXPECT_EQ(ops[0].id, "100-2-c");
  EXPECT_EQ(ops[0].entries, 2);
  EXPECT_EQ(ops[1].id, "100-1-b");
  EXPECT_EQ(ops[2].id, "099-9-a");
}

TEST_F(JournalTest, SoftRemovalUndoesRedoesOnceAndSurvivesARestart) {
  const int64_t a = add("/m/a.mp3");
  const int64_t b = add("/m/b.mp3");
  const auto opId = db().tracks().softRemove(std::vector<int64_t>{a, b});
  ASSERT_TRUE(opId);
  EXPECT_TRUE(reopen().tracks().loadAllTracks().empty());

  EXPECT_EQ(journal().lastUndoable()->id, *opId);
  EXPECT_EQ(applied(journal().undo(*opId)), 2);
  EXPECT_EQ(applied(journal().undo(*opId)), 0);  // nothing left to undo
  EXPECT_EQ(reopen().tracks().loadAllTracks().size(), 2u);
  EXPECT_EQ(field(a, "removed"), "");
  EXPECT_TRUE(journal().operations(1)[0].undone);
  EXPECT_EQ(journal().lastRedoable()->id, *opId);

  EXPECT_EQ(applied(journal().redo(*opId)), 2);
  EXPECT_TRUE(db().tracks().loadAllTracks().empty());
  EXPECT_EQ(journal().lastRedoable(), std::nullopt);
}

TEST_F(JournalTest, RedoFollowsTheUndoStackAndANewEditClosesIt) {
  const int64_t a = add("/m/a.mp3");
  const auto first =
      db().tracks().setField("genre", "House", std::vector<int64_t>{a}, "Edit Genre");
  db().execChecked("UPDATE history SET at = at - 10");
  const auto second =
      db().tracks().setField("genre", "Techno", std::vector<int64_t>{a}, "Edit Genre");
  ASSERT_TRUE(journal().undo(*second));
  ASSERT_TRUE(journal().undo(*first));
  EXPECT_EQ(field(a, "genre"), "");
  EXPECT_EQ(journal().lastRedoable()->id, *first);  // undone last, redone first
  ASSERT_TRUE(journal().redo(*first));
  EXPECT_EQ(journal().lastRedoable()->id, *second);
  ASSERT_TRUE(db().tracks().setField("genre", "Disco", std::vector<int64_t>{a}, "Edit Genre"));
  EXPECT_EQ(journal().lastRedoable(), std::nullopt);
  // Any operation may still be redone by id, but not over the newer edit.
  const auto redone = journal().redo(*second);
  ASSERT_TRUE(redone);
  EXPECT_EQ(redone->kept, 1);
  EXPECT_EQ(field(a, "genre"), "Disco");
}

TEST_F(JournalTest, UndoingAnOlderEditKeepsWhatANewerOneWrote) {
  const int64_t a = add("/m/a.mp3");
  const std::vector<int64_t> ids{a};
  ASSERT_TRUE(db().tracks().writeField("genre", "Original", ids));
  const auto first = db().tracks().setField("genre", "A", ids, "Edit Genre");
  const auto second = db().tracks().setField("genre", "B", ids, "Edit Genre");
  ASSERT_TRUE(first && second);

  auto done = journal().undo(*first);
  ASSERT_TRUE(done);
  EXPECT_EQ(done->applied, 0);
  EXPECT_EQ(done->kept, 1);
  EXPECT_EQ(field(a, "genre"), "B");
  // With the first undone too, the value goes back past both of them.
  EXPECT_EQ(applied(journal().undo(*second)), 1);
  EXPECT_EQ(field(a, "genre"), "Original");
  EXPECT_EQ(applied(journal().redo(*first)), 1);
  EXPECT_EQ(field(a, "genre"), "A");
  EXPECT_EQ(applied(journal().redo(*second)), 1);
  EXPECT_EQ(field(a, "genre"), "B");

  // A value written outside the history in between (an analysis filling an
  // empty tempo) is what an undo goes back to.
  const auto bpm = db().tracks().setField("bpm", "120", ids, "Edit BPM");
  ASSERT_TRUE(bpm && journal().undo(*bpm));
  ASSERT_TRUE(db().tracks().writeField("bpm", "125", ids));
  const auto later = db().tracks().setField("bpm", "128", ids, "Edit BPM");
  ASSERT_TRUE(later && journal().undo(*later));
  EXPECT_EQ(field(a, "bpm"), "125.0");

  // Whole rows: a cue moved after it was made is not unmade by undoing the
  // making; a playlist's members likewise.
  const auto cue = db().cues().addManualCue(a, 1000);
  ASSERT_TRUE(cue);
  ASSERT_TRUE(db().cues().moveCue(cue->cueId, 2000));
  done = journal().undo(cue->opId);
  ASSERT_TRUE(done);
  EXPECT_EQ(done->kept, 1);
  EXPECT_EQ(db().scalarInt("SELECT position_ms FROM cues"), 2000);
}

TEST_F(JournalTest, WholeRowsAndMemberListsComeBack) {
  const int64_t t1 = add("/m/1.mp3");
  const int64_t t2 = add("/m/2.mp3");
  db().execChecked(
      "INSERT INTO playlists(id, name, kind, color) VALUES(40, 'Warm-up', 'crate', '#fff')");
  db().execChecked("INSERT INTO playlist_tracks VALUES(40, " + std::to_string(t2) + ", 0), (40, " +
                   std::to_string(t1) + ", 1)");
  Journal& j = journal();

  // Deleting a crate: members first, then the row, as the store records them.
  const std::string del = j.begin("Delete Playlist");
  ASSERT_TRUE(j.snapshotPlaylist(del, "Delete Playlist", 40).isOk());
  ASSERT_TRUE(j.snapshotRow(del, "Delete Playlist", "playlists", 40).isOk());
  db().execChecked(
      "DELETE FROM playlist_tracks WHERE playlist_id = 40; DELETE FROM playlists WHERE id = 40");
  ASSERT_TRUE(j.seal(del).isOk());
  EXPECT_EQ(applied(reopen().journal().undo(del)), 2);
  EXPECT_EQ(
      db().scalarInt(
          "SELECT COUNT(*) FROM playlists WHERE id = 40 AND name = 'Warm-up' AND color = '#fff'"),
      1);
  EXPECT_EQ(db().journal().membersJSON(40),
            "[" + std::to_string(t2) + "," + std::to_string(t1) + "]");
  EXPECT_EQ(applied(db().journal().redo(del)), 2);
  EXPECT_EQ(db().count("playlists"), 0);
  EXPECT_EQ(db().count("playlist_tracks"), 0);

  // Creating a row: undo deletes it, redo recreates it as it was.
  db().execChecked("INSERT INTO playlists(id, name) VALUES(41, 'Peak')");
  const std::string make = db().journal().begin("New Crate");
  ASSERT_TRUE(db().journal().recordCreated(make, "New Crate", "playlists", 41).isOk());
  EXPECT_EQ(applied(db().journal().undo(make)), 1);
  EXPECT_EQ(db().count("playlists"), 0);
  EXPECT_EQ(applied(db().journal().redo(make)), 1);
  EXPECT_EQ(db().scalarInt("SELECT COUNT(*) FROM playlists WHERE id = 41 AND name = 'Peak'"), 1);
}

TEST_F(JournalTest, EntriesOutsideTheWritableTableAreNeverApplied) {
  const int64_t a = add("/m/a.mp3");
  Journal& j = journal();
  ASSERT_TRUE(j.record("1-1-x", "X", "tracks", a, "path_norm", "/evil", "/m/a.mp3").isOk());
  ASSERT_TRUE(j.record("1-1-x", "X", "tracks", a, "id; DROP TABLE tracks", "1", "2").isOk());
  ASSERT_TRUE(j.record("1-1-x", "X", "sqlite_master", a, "@row", "{}", std::nullopt).isOk());
  ASSERT_TRUE(j.record("1-1-x", "X", "tracks", a, "catalog_no", "A-1", "A-2").isOk());  // no column
  ASSERT_TRUE(j.record("1-1-x", "X", "tracks", a, "rating", "40", "60").isOk());
  EXPECT_EQ(applied(j.undo("1-1-x")), 1);
  EXPECT_EQ(field(a, "rating"), "40");
  EXPECT_EQ(field(a, "path_norm"), "/m/a.mp3");
  EXPECT_TRUE(j.operations(1)[0].undone);
  EXPECT_FALSE(Journal::isWritable("tracks", "merged_into"));
  // Rows of tables keyed on several columns cannot be put back "by id".
  ASSERT_TRUE(db().trackData().addTag(std::vector<int64_t>{a}, "vocal").isOk());
  EXPECT_FALSE(j.restoreRow("track_tags", a, std::nullopt));
  EXPECT_EQ(db().trackData().tagsOf(a).size(), 1u);
  EXPECT_EQ(Journal::writable("tracks").front(), "removed");
  EXPECT_EQ(Journal::writable("playlists").front(), "name");
}

}  // namespace
}  // namespace orvel
