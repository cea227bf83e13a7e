// The library as every view sees it: all tracks in memory (an index built
// off the main thread), the source the user is looking at, the content
// filter, scope, search, column browser and sort, and the rows they leave
// with their statistics. Every change of those schedules one refilter
// (16 ms later, 160 ms while the search text is typed) that runs on a
// worker; a newer request cancels an older one and a generation stamp drops
// results that arrive late. The list is always recomputed whole.
//
// Edits go through the store (library::LibraryEditor, which asks before
// touching many tracks); the store's change feed tells the model which rows
// changed, and it patches them into a new index and refilters. Writes made
// by another program are noticed by checkExternalChanges and reload the
// library.
//
// Thread contract: everything here is called and signalled on the thread
// that made the model (the main thread). The store it owns belongs to that
// thread; workers open their own read-only connections.
#pragma once

#include <QObject>
#include <QString>
#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/library/filter.h"
#include "core/library/library_edits.h"
#include "core/store/orvel_db.h"
#include "core/store/smart_store.h"

namespace orvel::app {

// What the sidebar shows as the source of the track list.
struct SidebarItem {
  enum class Kind { library, category, folder, playlist, assistant };
  Kind kind = Kind::library;
  library::Category category = library::Category::allTracks;
  std::string folder;
  int64_t playlistId = 0;

  static SidebarItem whole() { return {}; }
  static SidebarItem of(library::Category c) { return {Kind::category, c, {}, 0}; }
  static SidebarItem inFolder(std::string f) { return {Kind::folder, {}, std::move(f), 0}; }
  static SidebarItem playlist(int64_t id) { return {Kind::playlist, {}, {}, id}; }
  static SidebarItem assistant() { return {Kind::assistant, {}, {}, 0}; }
  bool operator==(const SidebarItem&) const = default;
};

// The model's one delay: a real timer in the application, one a test fires
// by hand, so that "one refilter 160 ms after the last keystroke" can be
// checked without waiting.
class DelayTimer {
 public:
  virtual ~DelayTimer() = default;
  // Replaces any pending call: `fire` runs once, `ms` milliseconds from now.
  virtual void start(int ms, std::function<void()> fire) = 0;
  virtual void stop() = 0;
};

class LibraryModel : public QObject {
  Q_OBJECT

 public:
  static constexpr int kRefilterMs = 16;
  static constexpr int kTypingMs = 160;
  static constexpr int kFirstRows = 3000;

  // Opens (and brings up to date) the catalogue at `databasePath` on this
  // thread; throws StoreError when it cannot be opened.
  explicit LibraryModel(const std::string& databasePath, QObject* parent = nullptr,
                        std::unique_ptr<DelayTimer> timer = nullptr);
  ~LibraryModel() override;

  OrvelDB& db() { return *db_; }
  const std::string& databasePath() const { return path_; }

  // ---- loading ---------------------------------------------------------------
  // The start-up steps that belong here: the "disliked" and "loved" sidebar
  // sections switched on once per user, then load(). The automatic backup
  // (at most one in 20 hours) follows the load, on a worker.
  void start();
  // Reads the library on a worker: the newest kFirstRows first, so a list
  // shows at once, then all of it; publishes each and refilters.
  void load();
  bool loaded() const { return loaded_; }
  const QString& loadStatus() const { return loadStatus_; }
  // Blocks until the load and any refilter in flight have been published
  // (for the command line and tests; the window never waits).
  void waitForIdle();

  // ---- what the user looks at --------------------------------------------------
  void select(const SidebarItem& item);
  const SidebarItem& selection() const { return selection_; }
  void setSearchText(const QString& text);
  const QString& searchText() const { return searchText_; }
  void setContentFilter(library::Content content);
  library::Content contentFilter() const { return query_.content; }
  void setScope(std::optional<library::Scope> scope);
  void setSortColumns(std::vector<library::SortColumn> columns);
  const std::vector<library::SortColumn>& sortColumns() const { return query_.sort; }
  void setShowBrowser(bool shown);
  bool showBrowser() const { return query_.browser.shown; }
  void setGroupCompilations(bool on);
  void setUseAlbumArtists(bool on);
  void setBrowserSelection(library::BrowserSelection selection);
  const library::BrowserSelection& browserSelection() const { return query_.selection; }
  void clearBrowserSelection();
  bool browserIsFiltering() const { return !query_.selection.empty(); }
  // The assistant's answer, shown as the "assistant" source.
  void setAssistantResult(std::vector<int64_t> ids, QString question);
  const QString& assistantQuestion() const { return aiQuestion_; }

  // A refilter 16 ms from now, or 160 ms (while typing); each replaces the
  // one pending.
  void refilter();
  void refilterSoon();

  // ---- what the views show --------------------------------------------------------
  const std::shared_ptr<const library::LibraryIndex>& index() const { return index_; }
  size_t visibleCount() const { return visible_.size(); }
  const TrackRow& visibleRow(size_t i) const { return shownIndex_->row(visible_[i]); }
  std::vector<int64_t> visibleIds() const;
  // Increases whenever the visible list is replaced.
  int64_t visibleEpoch() const { return visibleEpoch_; }
  const library::ViewStats& stats() const { return stats_; }
  QString statusText() const;
  const library::BrowserColumns& browserColumns() const { return browser_; }
  const std::array<int64_t, library::kCategoryCount>& categoryCounts() const { return counts_; }
  const std::array<double, 4>& tempoCuts() const { return tempoCuts_; }
  const std::map<int64_t, bool>& smartCrates() const { return smartCrates_; }
  std::optional<TrackRow> track(int64_t id) const;

  // The rows selected in the table, by id: they stay selected across
  // refilters for as long as they are shown.
  void setSelectedTrackIds(std::set<int64_t> ids);
  const std::set<int64_t>& selectedTrackIds() const { return selectedIds_; }

  // ---- editing --------------------------------------------------------------------
  // Who answers "Rate 40 tracks?": the window's dialog; unset, nothing is
  // asked and every edit of many tracks is declined.
  void setAsker(library::Asker* asker) { asker_ = asker; }
  library::EditResult setRating(const std::vector<int64_t>& ids, int stars);
  library::EditResult toggleLoved(const std::vector<int64_t>& ids);
  library::EditResult toggleDisliked(const std::vector<int64_t>& ids);
  library::EditResult toggleMaster(const std::vector<int64_t>& ids);
  library::EditResult commitInlineEdit(int64_t id, const std::string& field,
                                       const std::string& label, const std::string& value);
  library::EditResult setField(const std::vector<int64_t>& ids, const std::string& field,
                               const std::string& label, const std::string& value);
  library::EditResult removeTracks(const std::vector<int64_t>& ids);
  library::EditResult addToPlaylist(const std::vector<int64_t>& ids, int64_t playlistId);
  library::EditResult removeFromCurrentPlaylist(const std::vector<int64_t>& ids);
  library::EditResult undoLast();
  library::EditResult redoLast();
  // Saves and evaluates a smart playlist; the sidebar reloads and a toast
  // names it with its count.
  SmartSaveResult saveSmartPlaylist(const SmartPlaylist& playlist,
                                    std::optional<int64_t> existing = std::nullopt);

  // A play that started: appended to the play history (its newest `keep`
  // entries kept) and counted on the track.
  Status recordPlay(int64_t trackId, int64_t at, int keep);

  // The overview waveform: from memory, else from the catalogue, else none
  // now and computed on a worker; waveformReady(id) says when it is there.
  std::optional<std::vector<uint8_t>> waveformPeaks(int64_t trackId);
  bool waveformPending(int64_t trackId) const { return waveformsInFlight_.count(trackId) > 0; }

  // Re-reads the sidebar's smart-playlist map and tells the sidebar.
  void reloadSections();
  // Looks for writes by another program; reloads when there were any.
  void checkExternalChanges();

 signals:
  void loadedChanged();
  void visibleChanged();
  void browserChanged();
  void categoryCountsChanged();
  void sectionsChanged();
  void selectionChanged();
  void selectedTracksChanged();
  void toast(QString symbol, QString text);
  void waveformReady(qint64 trackId);

 private:
  struct Published;
  library::FilterQuery currentQuery() const;
  void runFilterNow();
  void publishIndex(std::shared_ptr<const library::LibraryIndex> index, bool complete);
  void onChanges(const ChangeSet& changes);
  void patchRows(const std::vector<int64_t>& ids);
  void refreshSets();
  // Looks for tracks holding the same recording on a worker, then marks them.
  void findDuplicates();
  void refreshSource();
  void recountCategories();
  library::EditResult report(library::EditResult result);
  library::LibraryEditor editor();

  std::string path_;
  std::unique_ptr<OrvelDB> db_;
  int changeToken_ = 0;
  std::unique_ptr<DelayTimer> timer_;
  library::Asker* asker_ = nullptr;

  std::shared_ptr<const library::LibraryIndex> index_;
  bool loaded_ = false;
  QString loadStatus_;
  uint64_t loadGeneration_ = 0;

  SidebarItem selection_;
  QString searchText_;
  QString aiQuestion_;
  std::vector<int64_t> aiResultIds_;
  std::shared_ptr<const std::vector<int64_t>> crateFilter_;
  library::FilterQuery query_;  // content, scope, browser, sort; source and search come in

  // The newest run's stamp; a result with another is dropped.
  uint64_t filterGeneration_ = 0;
  std::shared_ptr<std::atomic<bool>> cancelRun_;
  int runsInFlight_ = 0;
  int loadsInFlight_ = 0;

  std::shared_ptr<const library::LibraryIndex> shownIndex_;
  std::vector<uint32_t> visible_;
  int64_t visibleEpoch_ = 0;
  library::ViewStats stats_;
  library::BrowserColumns browser_;
  std::array<int64_t, library::kCategoryCount> counts_{};
  std::array<double, 4> tempoCuts_{82, 92, 100, 116};
  std::map<int64_t, bool> smartCrates_;
  std::set<int64_t> selectedIds_;

  std::unordered_map<int64_t, std::vector<uint8_t>> waveforms_;
  std::set<int64_t> waveformsInFlight_;
};

}  // namespace orvel::app
