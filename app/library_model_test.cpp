#include "app/library_model.h"

#include <gmock/gmock.h>

#include <QCoreApplication>
#include <QSignalSpy>

#include "app/settings.h"
#include "core/testing/audio_files.h"
#include "core/testing/temp_dir.h"

namespace orvel::app {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "orvel_app_test";
  static char* argv[] = {name, nullptr};
  static QCoreApplication app(argc, argv);
  return app;
}

// A timer a test fires by hand: it keeps the last request.
class HandTimer : public DelayTimer {
 public:
  void start(int ms, std::function<void()> fire) override {
    lastMs = ms;
    ++starts;
    fire_ = std::move(fire);
  }
  void stop() override { fire_ = nullptr; }
  bool pending() const { return fire_ != nullptr; }
  void fire() {
    if (auto f = std::exchange(fire_, nullptr)) f();
  }
  int lastMs = 0;
  int starts = 0;

 private:
  std::function<void()> fire_;
};

class CountingAsker : public library::Asker {
 public:
  bool answer = true;
  int asked = 0;
  bool ask(const library::Question&) override {
    ++asked;
    return answer;
  }
};

class LibraryModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    application();
    OrvelDB db(path());
    const auto source = db.tracks().orvelSourceId();
    ASSERT_TRUE(source);
    const char* genres[] = {"Deep House", "Techno", "deep house", "Disco"};
    for (int i = 0; i < 40; ++i) {
      NewTrack t;
      t.path = "/m/" + std::to_string(i) + ".mp3";
      t.title = "Track " + std::to_string(i);
      t.artist = i % 2 ? "Moodymann" : "Floorplan";
      t.genre = genres[i % 4];
      t.dateAdded = 1000 + i;
      t.bpm = 100 + i;
      ids_.push_back(*db.tracks().insertImported(t, *source));
    }
  }
  std::string path() const { return (dir_ / "orvel.db").string(); }
  // A model with a hand timer, loaded.
  std::unique_ptr<LibraryModel> model() {
    auto timer = std::make_unique<HandTimer>();
    timer_ = timer.get();
    auto m = std::make_unique<LibraryModel>(path(), nullptr, std::move(timer));
    m->load();
    m->waitForIdle();
    return m;
  }
  // Fires the pending refilter and waits for its result.
  void settle(LibraryModel& m) {
    timer_->fire();
    m.waitForIdle();
  }

  orvel::testing::TempDir dir_;
  std::vector<int64_t> ids_;
  HandTimer* timer_ = nullptr;
};

TEST_F(LibraryModelTest, LoadsPublishesAndTypingMakesOneRefilter) {
  auto m = model();
  ASSERT_TRUE(m->loaded());
  EXPECT_EQ(m->visibleCount(), 40u);
  EXPECT_EQ(m->visibleRow(0).id, ids_.back());  // newest first
  EXPECT_EQ(m->categoryCounts()[0], 40);

  QSignalSpy published(m.get(), &LibraryModel::visibleChanged);
  for (const char* typed : {"d", "de", "dee", "deep", "deep h"}) m->setSearchText(typed);
  EXPECT_EQ(timer_->lastMs, LibraryModel::kTypingMs);
  EXPECT_EQ(published.count(), 0);
  settle(*m);
  EXPECT_EQ(published.count(), 1);
  EXPECT_EQ(m->visibleCount(), 20u);  // "Deep House" and "deep house"
  EXPECT_EQ(m->stats().tracks, 20);

  m->setSortColumns({{library::SortField::bpm, false}});
  EXPECT_EQ(timer_->lastMs, LibraryModel::kRefilterMs);
  settle(*m);
  EXPECT_EQ(m->visibleRow(0).bpm, 138);
}

TEST_F(LibraryModelTest, ChangingTheSourceClearsTheBrowserAndSmartPlaylistsRefreshWhenLive) {
  auto m = model();
  SmartPlaylist rules;
  rules.name = "Fast";
  rules.rules = {SmartRule::make("bpm", "gt", "135")};
  const auto live = m->db().smart().saveSmartPlaylist(rules);
  rules.name = "Fast, kept";
  rules.liveUpdate = false;
  const auto still = m->db().smart().saveSmartPlaylist(rules);
  ASSERT_TRUE(live.playlistId && still.playlistId);
  // One more track becomes fast after both were saved.
  ASSERT_TRUE(m->db().tracks().writeField("bpm", "200", std::vector<int64_t>{ids_[0]}));
  m->waitForIdle();

  m->setShowBrowser(true);
  m->setBrowserSelection({{"Techno"}, {}, {}});
  settle(*m);
  EXPECT_TRUE(m->browserIsFiltering());

  m->select(SidebarItem::playlist(*live.playlistId));
  EXPECT_FALSE(m->browserIsFiltering());
  settle(*m);
  EXPECT_EQ(m->visibleCount(), 5u);  // 136…139 and the one made fast
  EXPECT_EQ(m->db().playlists().orderedTrackIds(*live.playlistId).size(), 5u);

  m->select(SidebarItem::playlist(*still.playlistId));
  settle(*m);
  EXPECT_EQ(m->visibleCount(), 4u);  // the members it had when saved
}

TEST_F(LibraryModelTest, EditsPatchTheListAskFromThirtyOneTracksAndUndoReloads) {
  auto m = model();
  CountingAsker asker;
  m->setAsker(&asker);
  QSignalSpy toasts(m.get(), &LibraryModel::toast);

  const std::vector<int64_t> thirty(ids_.begin(), ids_.begin() + 30);
  EXPECT_TRUE(m->setRating(thirty, 7).done());
  EXPECT_EQ(asker.asked, 0);
  ASSERT_EQ(toasts.count(), 1);
  EXPECT_EQ(toasts.at(0).at(1).toString(), QStringLiteral("Rated 30 tracks \u2605\u2605\u2605\u2605\u2605"));
  settle(*m);
  EXPECT_EQ(m->track(ids_[0])->rating, 100);

  asker.answer = false;
  const std::vector<int64_t> all(ids_.begin(), ids_.end());
  EXPECT_EQ(m->setRating(all, 1).outcome, library::EditResult::Outcome::declined);
  EXPECT_EQ(asker.asked, 1);
  EXPECT_EQ(m->track(ids_[39])->rating, std::nullopt);

  // A mix of loved and not: all loved, and the category counts follow.
  asker.answer = true;
  ASSERT_TRUE(m->toggleLoved({ids_[0]}).done());
  ASSERT_TRUE(m->toggleLoved({ids_[0], ids_[1]}).done());
  EXPECT_EQ(m->categoryCounts()[static_cast<size_t>(library::Category::loved)], 2);

  // Disliking hides a track from the list at the next refilter.
  ASSERT_TRUE(m->toggleDisliked({ids_[39]}).done());
  settle(*m);
  EXPECT_EQ(m->visibleCount(), 39u);
  EXPECT_EQ(m->stats().hiddenDisliked, 1);

  ASSERT_TRUE(m->undoLast().done());
  m->waitForIdle();
  settle(*m);
  EXPECT_EQ(m->visibleCount(), 40u);
}

TEST_F(LibraryModelTest, SelectionIsKeptByIdWhileShown) {
  auto m = model();
  m->setSelectedTrackIds({ids_[0], ids_[1]});
  m->setSearchText("Track 1");  // Track 1, 10…19: ids_[1] stays, ids_[0] goes
  settle(*m);
  EXPECT_THAT(m->selectedTrackIds(), ElementsAre(ids_[1]));
}

TEST_F(LibraryModelTest, PlaysAreCountedAndTheHistoryKeptShort) {
  auto m = model();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(m->recordPlay(ids_[3], 2000 + i, 3));
  settle(*m);
  EXPECT_EQ(m->track(ids_[3])->playCount, 5);
  EXPECT_EQ(m->db().trackData().recentPlays(10).size(), 3u);
}

TEST_F(LibraryModelTest, WaveformsAreComputedOnceInTheBackgroundAndKept) {
  const auto file = dir_ / "tone.wav";
  orvel::testing::writeAudioFile(file, orvel::testing::AudioFormat::wav);
  int64_t id = 0;
  {
    OrvelDB db(path());
    NewTrack t;
    t.path = file.string();
    id = *db.tracks().insertImported(t, *db.tracks().orvelSourceId());
  }
  auto m = model();
  QSignalSpy ready(m.get(), &LibraryModel::waveformReady);
  EXPECT_FALSE(m->waveformPeaks(id));  // not yet: "rendering waveform…"
  EXPECT_TRUE(m->waveformPending(id));
  m->waitForIdle();
  ASSERT_EQ(ready.count(), 1);
  const auto peaks = m->waveformPeaks(id);
  ASSERT_TRUE(peaks);
  EXPECT_EQ(peaks->size(), 3200u);
  EXPECT_EQ(m->db().analysis().waveform(id), peaks);  // stored, never computed twice
}

TEST_F(LibraryModelTest, StartSwitchesTheDefaultSectionsOnOnceAndWritesElsewhereReload) {
  auto m = model();
  m->start();
  m->waitForIdle();
  EXPECT_THAT(Settings().libSections(), ::testing::IsSupersetOf({"disliked", "loved"}));

  // Another program adds a track: noticed, read again.
  {
    OrvelDB other(path());
    NewTrack t;
    t.path = "/m/new.mp3";
    ASSERT_TRUE(other.tracks().insertImported(t, *other.tracks().orvelSourceId()));
  }
  m->checkExternalChanges();
  m->waitForIdle();
  settle(*m);
  EXPECT_EQ(m->visibleCount(), 41u);
}

}  // namespace
}  // namespace orvel::app
