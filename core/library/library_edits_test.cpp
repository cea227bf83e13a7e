#include "core/library/library_edits.h"

#include <gmock/gmock.h>

#include "core/testing/store_fixture.h"

namespace orvel::library {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Remembers every question and gives the answer it was told to.
class ScriptedAsker : public Asker {
 public:
  bool answer = true;
  std::vector<Question> asked;
  bool ask(const Question& q) override {
    asked.push_back(q);
    return answer;
  }
};

class LibraryEditorTest : public orvel::testing::StoreTest {
 protected:
  std::vector<int64_t> addTracks(int n) {
    std::vector<int64_t> ids;
    for (int i = 0; i < n; ++i) ids.push_back(add("/m/" + std::to_string(i) + ".mp3"));
    return ids;
  }
  LibraryEditor editor() { return LibraryEditor(db(), asker_); }
  ScriptedAsker asker_;
};

TEST_F(LibraryEditorTest, ThirtyTracksAreRatedAtOnceAndThirtyOneAskFirst) {
  const auto ids = addTracks(31);
  const std::vector<int64_t> thirty(ids.begin(), ids.begin() + 30);
  EditResult r = editor().setRating(thirty, 3);
  EXPECT_TRUE(r.done());
  EXPECT_TRUE(asker_.asked.empty());
  EXPECT_EQ(r.toast, (Toast{"star.fill", "Rated 30 tracks \u2605\u2605\u2605\u2606\u2606"}));
  EXPECT_EQ(field(ids[0], "rating"), "60");

  asker_.answer = false;
  r = editor().setRating(ids, 5);
  EXPECT_EQ(r.outcome, EditResult::Outcome::declined);
  ASSERT_EQ(asker_.asked.size(), 1u);
  EXPECT_EQ(asker_.asked[0].question, "Rate 31 tracks?");
  EXPECT_EQ(asker_.asked[0].explanation,
            "This changes 31 tracks at once. It can be undone from the History panel.");
  EXPECT_EQ(asker_.asked[0].confirm, "Rate 31 Tracks");
  EXPECT_EQ(asker_.asked[0].cancel, "Cancel");
  EXPECT_EQ(field(ids[30], "rating"), "");  // nothing written on "Cancel"

  asker_.answer = true;
  EXPECT_TRUE(editor().setRating(ids, 7).done());
  EXPECT_EQ(field(ids[30], "rating"), "100");
  EXPECT_TRUE(editor().setRating(std::vector<int64_t>{ids[0]}, -2).done());
  EXPECT_EQ(field(ids[0], "rating"), "0");
}

TEST_F(LibraryEditorTest, MarksToggleAsAGroup) {
  const auto ids = addTracks(3);
  ASSERT_TRUE(editor().setLoved(std::vector<int64_t>{ids[0]}, true).done());
  // A mix of loved and not: all of them loved.
  EditResult r = editor().toggleLoved(ids);
  EXPECT_EQ(r.toast, (Toast{"heart.fill", "Loved 3 tracks"}));
  for (int64_t id : ids) EXPECT_EQ(field(id, "loved"), "1");
  // All loved: all of them not.
  r = editor().toggleLoved(ids);
  EXPECT_EQ(r.toast, (Toast{"heart", "Removed from Loved"}));
  for (int64_t id : ids) EXPECT_EQ(field(id, "loved"), "0");

  r = editor().toggleDisliked(std::vector<int64_t>{ids[1]});
  EXPECT_EQ(r.toast.text, "Disliked 1 track \u00b7 hidden from every view");
  EXPECT_EQ(editor().toggleDisliked(std::vector<int64_t>{ids[1]}).toast.text,
            "Back in the library");
  EXPECT_EQ(editor().toggleMaster(ids).toast.text, "Marked as master");
}

TEST_F(LibraryEditorTest, FieldEditsSayWhatChangedAndRefuseNonsense) {
  const auto ids = addTracks(2);
  EditResult r = editor().commitInlineEdit(ids[0], "genre", "Genre", "House");
  EXPECT_EQ(r.toast, (Toast{"square.and.pencil", "Edit Genre to House"}));
  EXPECT_EQ(field(ids[0], "genre"), "House");
  EXPECT_EQ(editor().commitInlineEdit(ids[0], "genre", "Genre", "").toast.text,
            "Edit Genre cleared");
  r = editor().commitInlineEdit(ids[0], "bpm", "BPM", "-120");
  EXPECT_EQ(r.outcome, EditResult::Outcome::failed);
  EXPECT_THAT(r.toast.text, HasSubstr("Edit BPM failed"));
  EXPECT_EQ(field(ids[0], "bpm"), "");
  EXPECT_EQ(editor().setField(ids, "nosuch", "No such", "x").outcome,
            EditResult::Outcome::failed);
}

TEST_F(LibraryEditorTest, UndoAndRedoAskFirstAndSayWhenThereIsNothing) {
  EXPECT_EQ(editor().undoLast().toast.text, "Nothing to undo");
  EXPECT_EQ(editor().redoLast().toast.text, "Nothing to redo");
  const auto ids = addTracks(1);
  ASSERT_TRUE(editor().setRating(ids, 4).done());

  asker_.answer = false;
  EXPECT_EQ(editor().undoLast().outcome, EditResult::Outcome::declined);
  EXPECT_EQ(field(ids[0], "rating"), "80");
  EXPECT_EQ(asker_.asked.back().question, "Undo \u201CSet Rating\u201D?");
  EXPECT_EQ(asker_.asked.back().symbol, "exclamationmark.triangle.fill");

  asker_.answer = true;
  EditResult r = editor().undoLast();
  EXPECT_TRUE(r.done());
  EXPECT_EQ(r.toast.text, "Undid \u201CSet Rating\u201D (1 change)");
  EXPECT_EQ(field(ids[0], "rating"), "");
  r = editor().redoLast();
  EXPECT_EQ(r.toast.text, "Redid \u201CSet Rating\u201D (1 change)");
  EXPECT_EQ(field(ids[0], "rating"), "80");
}

TEST_F(LibraryEditorTest, PlaylistMembershipAndRemoval) {
  const auto ids = addTracks(3);
  const auto list = db().playlists().create("Gig", std::nullopt);
  ASSERT_TRUE(list);
  EXPECT_EQ(editor().addToPlaylist(ids, *list).toast.text, "Added 3 tracks");
  EXPECT_THAT(db().playlists().orderedTrackIds(*list), ElementsAre(ids[0], ids[1], ids[2]));
  EXPECT_EQ(editor().removeFromPlaylist(std::vector<int64_t>{ids[1]}, *list).toast,
            (Toast{"minus.circle.fill", "Removed 1 track from playlist"}));
  EXPECT_EQ(editor().removeTracks(std::vector<int64_t>{ids[2]}).toast.text,
            "Removed 1 track from the library");
  EXPECT_EQ(field(ids[2], "removed"), "1");
}

}  // namespace
}  // namespace orvel::library
