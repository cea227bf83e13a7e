#include "app/library_model.h"

#include <fmt/format.h>

#include <QCoreApplication>
#include <QThreadPool>
#include <QTimer>
#include <chrono>

#include "app/app_paths.h"
#include "app/audio/waveform.h"
#include "app/klog.h"
#include "app/settings.h"
#include "core/library/library_load.h"
#include "core/text/split.h"

namespace orvel::app {
namespace {

// The application's timer: a single-shot QTimer on the model's thread.
class QtDelayTimer : public DelayTimer {
 public:
  QtDelayTimer() {
    timer_.setSingleShot(true);
    QObject::connect(&timer_, &QTimer::timeout, [this] {
      if (auto fire = std::exchange(fire_, nullptr)) fire();
    });
  }
  void start(int ms, std::function<void()> fire) override {
    fire_ = std::move(fire);
    timer_.start(ms);
  }
  void stop() override {
    timer_.stop();
    fire_ = nullptr;
  }

 private:
  QTimer timer_;
  std::function<void()> fire_;
};

// Runs `work` on the shared pool and hands its result to `done` on the
// thread of `context`; dropped when the context is gone by then.
template <typename Result>
void onWorker(QObject* context, std::function<Result()> work, std::function<void(Result)> done) {
  QThreadPool::globalInstance()->start([context, work = std::move(work), done = std::move(done)] {
    auto result = std::make_shared<Result>(work());
    QMetaObject::invokeMethod(
        context, [done, result] { done(std::move(*result)); }, Qt::QueuedConnection);
  });
}

// As many automatic backups as `orvel backup` keeps by default.
constexpr int kAutomaticBackupsKept = 10;

QString qs(const std::string& s) {
  return QString::fromStdString(s);
}

}  // namespace

LibraryModel::LibraryModel(const std::string& databasePath, QObject* parent,
                           std::unique_ptr<DelayTimer> timer)
    : QObject(parent),
      path_(databasePath),
      db_(std::make_unique<OrvelDB>(databasePath)),
      timer_(timer ? std::move(timer) : std::make_unique<QtDelayTimer>()) {
  changeToken_ = db_->connection().subscribe([this](const ChangeSet& c) { onChanges(c); });
  smartCrates_ = db_->smart().smartPlaylists();
}

LibraryModel::~LibraryModel() {
  timer_->stop();
  if (cancelRun_) cancelRun_->store(true);
  db_->connection().unsubscribe(changeToken_);
}

// ---- loading ----------------------------------------------------------------

void LibraryModel::start() {
  Settings settings;
  settings.enableDefaultSections();
  load();
}

void LibraryModel::load() {
  const uint64_t generation = ++loadGeneration_;
  loadStatus_ = index_ ? QStringLiteral("Reloading the library\u2026")
                       : QStringLiteral("Loading the library\u2026");
  ++loadsInFlight_;
  const std::string path = path_;
  const bool first = !index_;
  using Index = std::shared_ptr<const library::LibraryIndex>;
  // A first look: the newest rows at once, while the rest is read.
  if (first) {
    ++loadsInFlight_;
    onWorker<Index>(
        this,
        [path] {
          OrvelDB db(path, OpenMode::readOnly);
          auto snapshot = std::make_shared<TrackSnapshot>();
          snapshot->generation = db.connection().generation();
          snapshot->rows = db.tracks().loadAllTracks(kFirstRows);
          return library::LibraryIndex::build(snapshot, {});
        },
        [this, generation](Index index) {
          --loadsInFlight_;
          if (generation != loadGeneration_ || loaded_) return;
          publishIndex(std::move(index), false);
        });
  }
  onWorker<Index>(
      this,
      [path] {
        const auto start = std::chrono::steady_clock::now();
        OrvelDB db(path, OpenMode::readOnly);
        auto index = library::loadIndex(db);
        klog(fmt::format(
            "library loaded: {} tracks in {:.0f} ms", index->size(),
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count()));
        return index;
      },
      [this, generation, first](Index index) {
        --loadsInFlight_;
        if (generation != loadGeneration_) return;
        publishIndex(std::move(index), true);
        findDuplicates();
        if (!first) return;
        // The automatic backup, at most once in 20 hours, off the main thread.
        ++loadsInFlight_;
        onWorker<bool>(
            this,
            [catalogue = path_] {
              Settings settings;
              const auto made =
                  AppPaths::backupDatabase(catalogue, kAutomaticBackupsKept, settings);
              if (!made) klog("backup failed: " + describe(made.status()));
              return made.has_value();
            },
            [this](bool) { --loadsInFlight_; });
      });
}

void LibraryModel::findDuplicates() {
  if (!index_) return;
  const uint64_t generation = loadGeneration_;
  auto snapshot = index_->snapshot();
  const std::string path = path_;
  using Ids = std::unordered_set<int64_t>;
  ++loadsInFlight_;
  onWorker<Ids>(
      this,
      [path, snapshot] {
        OrvelDB db(path, OpenMode::readOnly);
        return library::duplicateIds(db, *snapshot);
      },
      [this, generation](Ids ids) {
        --loadsInFlight_;
        // A reload since brings its own search.
        if (generation != loadGeneration_ || !index_) return;
        index_ = index_->withDuplicates(std::move(ids));
        recountCategories();
        refilter();
      });
}

void LibraryModel::publishIndex(std::shared_ptr<const library::LibraryIndex> index, bool complete) {
  index_ = std::move(index);
  if (complete) {
    loaded_ = true;
    loadStatus_.clear();
  } else {
    loadStatus_ =
        QStringLiteral("Loading the library\u2026 the newest %1 tracks shown").arg(index_->size());
  }
  recountCategories();
  smartCrates_ = db_->smart().smartPlaylists();
  emit loadedChanged();
  runFilterNow();
}

void LibraryModel::waitForIdle() {
  while (loadsInFlight_ > 0 || runsInFlight_ > 0 || !waveformsInFlight_.empty())
    QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
}

// ---- the source and the filters ------------------------------------------------

void LibraryModel::select(const SidebarItem& item) {
  selection_ = item;
  refreshSource();
  query_.selection = {};
  emit selectionChanged();
  refilter();
}

void LibraryModel::refreshSource() {
  if (selection_.kind != SidebarItem::Kind::playlist) {
    crateFilter_.reset();
    return;
  }
  // A live smart playlist is evaluated again (and its members stored); any
  // other shows the members it has.
  const int64_t id = selection_.playlistId;
  auto ids = db_->smart().refreshSmartPlaylist(id).value_or(db_->playlists().orderedTrackIds(id));
  crateFilter_ = std::make_shared<const std::vector<int64_t>>(std::move(ids));
}

void LibraryModel::setSearchText(const QString& text) {
  if (text == searchText_) return;
  searchText_ = text;
  refilterSoon();
}

void LibraryModel::setContentFilter(library::Content content) {
  query_.content = content;
  refilter();
}

void LibraryModel::setScope(std::optional<library::Scope> scope) {
  query_.scope = std::move(scope);
  refilter();
}

void LibraryModel::setSortColumns(std::vector<library::SortColumn> columns) {
  query_.sort = std::move(columns);
  refilter();
}

void LibraryModel::setShowBrowser(bool shown) {
  query_.browser.shown = shown;
  if (!shown) query_.selection = {};
  refilter();
}

void LibraryModel::setGroupCompilations(bool on) {
  query_.browser.groupCompilations = on;
  refilter();
}

void LibraryModel::setUseAlbumArtists(bool on) {
  query_.browser.useAlbumArtists = on;
  refilter();
}

void LibraryModel::setBrowserSelection(library::BrowserSelection selection) {
  query_.selection = std::move(selection);
  refilter();
}

void LibraryModel::clearBrowserSelection() {
  setBrowserSelection({});
}

void LibraryModel::setAssistantResult(std::vector<int64_t> ids, QString question) {
  aiResultIds_ = std::move(ids);
  aiQuestion_ = std::move(question);
  emit sectionsChanged();
  if (selection_.kind == SidebarItem::Kind::assistant) refilter();
}

void LibraryModel::refilter() {
  timer_->start(kRefilterMs, [this] { runFilterNow(); });
}

void LibraryModel::refilterSoon() {
  timer_->start(kTypingMs, [this] { runFilterNow(); });
}

library::FilterQuery LibraryModel::currentQuery() const {
  library::FilterQuery q = query_;
  q.search = searchText_.toStdString();
  q.now = static_cast<int64_t>(std::time(nullptr));
  switch (selection_.kind) {
    case SidebarItem::Kind::library:
      q.source = library::Source::library();
      break;
    case SidebarItem::Kind::category:
      q.source = library::Source::of(selection_.category);
      break;
    case SidebarItem::Kind::folder:
      q.source = library::Source::inFolder(selection_.folder);
      break;
    case SidebarItem::Kind::playlist:
      q.source.kind = library::Source::Kind::tracks;
      q.source.ids = crateFilter_ ? crateFilter_ : std::make_shared<const std::vector<int64_t>>();
      break;
    case SidebarItem::Kind::assistant:
      q.source = library::Source::tracks(aiResultIds_);
      break;
  }
  return q;
}

void LibraryModel::runFilterNow() {
  if (!index_) return;
  timer_->stop();
  const uint64_t generation = ++filterGeneration_;
  if (cancelRun_) cancelRun_->store(true);
  cancelRun_ = std::make_shared<std::atomic<bool>>(false);
  auto cancel = cancelRun_;
  auto index = index_;
  const library::FilterQuery q = currentQuery();
  ++runsInFlight_;
  onWorker<library::FilterResult>(
      this, [index, q, cancel] { return library::runFilter(*index, q, cancel.get()); },
      [this, generation, index](library::FilterResult r) {
        --runsInFlight_;
        if (generation != filterGeneration_ || r.cancelled) return;
        shownIndex_ = index;
        visible_ = std::move(r.rows);
        ++visibleEpoch_;
        stats_ = r.stats;
        const bool browserShown = r.browser.has_value();
        if (browserShown) browser_ = std::move(*r.browser);
        klog(library::logLine(r));
        // Selected rows stay selected while they are shown.
        std::set<int64_t> still;
        for (uint32_t i : visible_)
          if (selectedIds_.count(shownIndex_->row(i).id)) still.insert(shownIndex_->row(i).id);
        const bool selectionShrank = still.size() != selectedIds_.size();
        selectedIds_ = std::move(still);
        emit visibleChanged();
        if (browserShown) emit browserChanged();
        if (selectionShrank) emit selectedTracksChanged();
      });
}

std::vector<int64_t> LibraryModel::visibleIds() const {
  std::vector<int64_t> ids;
  ids.reserve(visible_.size());
  for (uint32_t i : visible_) ids.push_back(shownIndex_->row(i).id);
  return ids;
}

QString LibraryModel::statusText() const {
  return qs(library::statusText(stats_));
}

std::optional<TrackRow> LibraryModel::track(int64_t id) const {
  if (!index_) return std::nullopt;
  const auto i = index_->find(id);
  if (!i || index_->hidden(*i)) return std::nullopt;
  return index_->row(*i);
}

void LibraryModel::setSelectedTrackIds(std::set<int64_t> ids) {
  if (ids == selectedIds_) return;
  selectedIds_ = std::move(ids);
  emit selectedTracksChanged();
}

void LibraryModel::recountCategories() {
  if (!index_) return;
  counts_ = library::categoryCounts(*index_, static_cast<int64_t>(std::time(nullptr)));
  tempoCuts_ = library::tempoCuts(*index_);
  emit categoryCountsChanged();
}

// ---- keeping in step with the store ------------------------------------------------

void LibraryModel::onChanges(const ChangeSet& changes) {
  if (changes.external) {
    load();
    return;
  }
  if (const auto it = changes.tables.find("tracks"); it != changes.tables.end()) {
    if (it->second.allRows) {
      load();
      return;
    }
    patchRows(it->second.ids);
  }
  if (const auto it = changes.tables.find("cues"); it != changes.tables.end()) {
    // A cue count lives on its track's row: the tracks of the cues written,
    // and the selected ones (a deleted cue no longer names its track).
    std::vector<int64_t> ids(selectedIds_.begin(), selectedIds_.end());
    if (!it->second.allRows && !it->second.ids.empty()) {
      std::string list;
      for (int64_t id : it->second.ids) list += (list.empty() ? "" : ",") + std::to_string(id);
      for (int64_t t :
           db_->connection().ids("SELECT DISTINCT track_id FROM cues WHERE id IN (" + list + ")"))
        ids.push_back(t);
    }
    patchRows(ids);
  }
  if (changes.touches("playlists") || changes.touches("playlist_tracks") ||
      changes.touches("smart_playlists")) {
    smartCrates_ = db_->smart().smartPlaylists();
    emit sectionsChanged();
    if (selection_.kind == SidebarItem::Kind::playlist &&
        (changes.touches("playlist_tracks") || changes.touches("smart_playlists"))) {
      crateFilter_ = std::make_shared<const std::vector<int64_t>>(
          db_->playlists().orderedTrackIds(selection_.playlistId));
      refilter();
    }
  }
  if (changes.touches("defects") || changes.touches("defect_status") ||
      changes.touches("release_fields"))
    refreshSets();
  if (changes.touches("track_fingerprints")) findDuplicates();
}

void LibraryModel::patchRows(const std::vector<int64_t>& ids) {
  if (!index_ || ids.empty()) return;
  std::vector<TrackRow> rows = db_->tracks().loadTracks(ids);
  std::set<int64_t> live;
  for (const TrackRow& r : rows) {
    live.insert(r.id);
    // A track the index has never held (an import): the library is read
    // again rather than patched.
    if (!index_->find(r.id)) {
      load();
      return;
    }
  }
  std::vector<int64_t> gone;
  for (int64_t id : ids)
    if (!live.count(id)) gone.push_back(id);
  index_ = index_->patched(rows, gone);
  recountCategories();
  refilter();
}

void LibraryModel::refreshSets() {
  if (!index_) return;
  library::LibrarySets sets = library::loadSets(*db_);
  sets.duplicates = index_->sets().duplicates;
  index_ = index_->withSets(std::move(sets));
  recountCategories();
  refilter();
}

// ---- editing ----------------------------------------------------------------------

namespace {

// Says no to every question: without a window to ask in, an edit of many
// tracks is not made.
class NobodyAsked : public library::Asker {
 public:
  bool ask(const library::Question&) override { return false; }
};

}  // namespace

library::LibraryEditor LibraryModel::editor() {
  static NobodyAsked nobody;
  return library::LibraryEditor(*db_, asker_ ? *asker_ : nobody);
}

library::EditResult LibraryModel::report(library::EditResult result) {
  if (result.outcome != library::EditResult::Outcome::declined)
    emit toast(qs(result.toast.symbol), qs(result.toast.text));
  return result;
}

library::EditResult LibraryModel::setRating(const std::vector<int64_t>& ids, int stars) {
  return report(editor().setRating(ids, stars));
}

library::EditResult LibraryModel::toggleLoved(const std::vector<int64_t>& ids) {
  return report(editor().toggleLoved(ids));
}

library::EditResult LibraryModel::toggleDisliked(const std::vector<int64_t>& ids) {
  return report(editor().toggleDisliked(ids));
}

library::EditResult LibraryModel::toggleMaster(const std::vector<int64_t>& ids) {
  return report(editor().toggleMaster(ids));
}

library::EditResult LibraryModel::commitInlineEdit(int64_t id, const std::string& field,
                                                   const std::string& label,
                                                   const std::string& value) {
  return report(editor().commitInlineEdit(id, field, label, value));
}

library::EditResult LibraryModel::setField(const std::vector<int64_t>& ids,
                                           const std::string& field, const std::string& label,
                                           const std::string& value) {
  return report(editor().setField(ids, field, label, value));
}

library::EditResult LibraryModel::removeTracks(const std::vector<int64_t>& ids) {
  return report(editor().removeTracks(ids));
}

library::EditResult LibraryModel::addToPlaylist(const std::vector<int64_t>& ids,
                                                int64_t playlistId) {
  return report(editor().addToPlaylist(ids, playlistId));
}

library::EditResult LibraryModel::removeFromCurrentPlaylist(const std::vector<int64_t>& ids) {
  if (selection_.kind != SidebarItem::Kind::playlist) {
    library::EditResult r;
    r.outcome = library::EditResult::Outcome::nothing;
    r.toast = {"info.circle", "No playlist is open"};
    return report(r);
  }
  auto r = report(editor().removeFromPlaylist(ids, selection_.playlistId));
  if (r.done()) select(selection_);
  return r;
}

library::EditResult LibraryModel::undoLast() {
  auto r = report(editor().undoLast());
  if (r.done()) load();
  return r;
}

library::EditResult LibraryModel::redoLast() {
  auto r = report(editor().redoLast());
  if (r.done()) load();
  return r;
}

SmartSaveResult LibraryModel::saveSmartPlaylist(const SmartPlaylist& playlist,
                                                std::optional<int64_t> existing) {
  if (playlist.rules.empty()) {
    SmartSaveResult refused;
    refused.error = "Add at least one rule \u2014 an empty one matches everything";
    emit toast(QStringLiteral("exclamationmark.triangle.fill"), qs(refused.error));
    return refused;
  }
  SmartSaveResult r = db_->smart().saveSmartPlaylist(playlist, existing);
  if (!r.playlistId) {
    emit toast(QStringLiteral("exclamationmark.triangle.fill"),
               qs("Smart playlist not saved: " + r.error));
    return r;
  }
  reloadSections();
  emit toast(QStringLiteral("wand.and.stars"),
             qs("Smart playlist \u201C" + playlist.name + "\u201D \u00b7 " +
                library::tracksText(static_cast<size_t>(r.trackCount))));
  return r;
}

void LibraryModel::reloadSections() {
  smartCrates_ = db_->smart().smartPlaylists();
  emit sectionsChanged();
}

Status LibraryModel::recordPlay(int64_t trackId, int64_t at, int keep) {
  return db_->trackData().recordPlay(trackId, at, keep);
}

void LibraryModel::checkExternalChanges() {
  db_->connection().checkExternalChanges();
}

// ---- waveforms ------------------------------------------------------------------------

std::optional<std::vector<uint8_t>> LibraryModel::waveformPeaks(int64_t trackId) {
  if (const auto it = waveforms_.find(trackId); it != waveforms_.end()) return it->second;
  if (auto stored = db_->analysis().waveform(trackId)) {
    waveforms_.emplace(trackId, *stored);
    return stored;
  }
  if (waveformsInFlight_.count(trackId)) return std::nullopt;
  const auto row = track(trackId);
  if (!row || row->missing) return std::nullopt;
  waveformsInFlight_.insert(trackId);
  const std::string path(row->path());
  using Blob = std::optional<std::vector<uint8_t>>;
  onWorker<Blob>(
      this, [path] { return audio::WaveformLoader::compute(path); },
      [this, trackId](Blob blob) {
        waveformsInFlight_.erase(trackId);
        // A file that cannot be read stores nothing; the next view asks again.
        if (!blob) return;
        if (Status s = db_->analysis().setWaveform(trackId, *blob); !s)
          klog("waveform of " + std::to_string(trackId) + " not stored: " + s.message());
        waveforms_[trackId] = std::move(*blob);
        emit waveformReady(trackId);
      });
  return std::nullopt;
}

}  // namespace orvel::app
