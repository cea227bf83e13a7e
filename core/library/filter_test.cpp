#include "core/library/filter.h"

#include <gmock/gmock.h>

#include "core/library/text_keys.h"
#include "core/testing/track_rows.h"

namespace orvel::library {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::T;

constexpr int64_t kNow = 1'800'000'000;

// The rows in launch order (the first is the newest); ids count from 1.
std::shared_ptr<const LibraryIndex> indexOf(std::vector<T> tracks, LibrarySets sets = {}) {
  auto snapshot = std::make_shared<TrackSnapshot>();
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (tracks[i].id_ == 0) tracks[i].id(static_cast<int64_t>(i + 1));
    snapshot->rows.push_back(tracks[i].row());
  }
  return LibraryIndex::build(std::move(snapshot), std::move(sets));
}

std::vector<int64_t> ids(const LibraryIndex& index, const FilterResult& r) {
  std::vector<int64_t> out;
  for (uint32_t i : r.rows) out.push_back(index.row(i).id);
  return out;
}

std::vector<int64_t> run(const LibraryIndex& index, FilterQuery q) {
  q.now = q.now ? q.now : kNow;
  return ids(index, runFilter(index, q));
}

FilterQuery search(std::string text) {
  FilterQuery q;
  q.search = std::move(text);
  return q;
}

FilterQuery sorted(std::vector<SortColumn> columns) {
  FilterQuery q;
  q.sort = std::move(columns);
  return q;
}

TEST(Filter, SearchIsOneLowerCasedSubstringOfOneField) {
  const auto index = indexOf({T().title("Deep").artist("House"),
                              T().title("Night").genre("Deep House"),
                              T().title("ÉTÉ").artist("Zoë"),
                              T().title("ete"),
                              T().title("Something").album("Deep  House")});
  EXPECT_THAT(run(*index, search("   ")), ElementsAre(1, 2, 3, 4, 5));
  // The two words as one sequence, space included, in one field.
  EXPECT_THAT(run(*index, search("deep house")), ElementsAre(2));
  EXPECT_THAT(run(*index, search("  DEEP HOUSE ")), ElementsAre(2));
  // Case folds across scripts; accents do not.
  EXPECT_THAT(run(*index, search("été")), ElementsAre(3));
  EXPECT_THAT(run(*index, search("ete")), ElementsAre(4));
  EXPECT_THAT(run(*index, search("zoë")), ElementsAre(3));
  EXPECT_THAT(run(*index, search("no such thing")), IsEmpty());
  // No search reaches across two fields.
  EXPECT_THAT(run(*index, search("deephouse")), IsEmpty());
  EXPECT_THAT(idsMatching(*index, "house"), ElementsAre(1, 2, 5));
}

TEST(Filter, SortsStablyByEveryColumnWithGapsFirstAscendingLastDescending) {
  const auto index = indexOf({T().artist("b").bpm(128).title("'Till Dawn"),
                              T().artist("a").bpm(124).title("Zebra"),
                              T().artist("B").bpm(120).title("alpha"),
                              T().artist("a").title("(Untitled)"),
                              T().artist("a").bpm(124).title("mango")});
  EXPECT_THAT(run(*index, sorted({{SortField::artist}, {SortField::bpm}})),
              ElementsAre(4, 2, 5, 3, 1));
  // Equal under every column: the source's order (newest first) stands.
  EXPECT_THAT(run(*index, sorted({{SortField::artist}})), ElementsAre(2, 4, 5, 1, 3));
  EXPECT_THAT(run(*index, sorted({{SortField::bpm, false}})), ElementsAre(1, 2, 5, 3, 4));
  // Leading punctuation does not decide a title's place; case does not either.
  EXPECT_THAT(run(*index, sorted({{SortField::title}})), ElementsAre(3, 5, 1, 4, 2));
}

TEST(Filter, KeysSortAroundTheWheelAndNumbersAsNumbers) {
  const auto index = indexOf({T().key("2A"), T().key("Am"), T().key("1B"), T().key("odd"),
                              T().key(""), T().key("10A")});
  // Am is 8A; a key no notation knows after the wheel, no key first.
  EXPECT_THAT(run(*index, sorted({{SortField::key}})), ElementsAre(5, 3, 1, 2, 6, 4));
  EXPECT_EQ(sortKey("  \"(Untitled)"), "Untitled)");
  EXPECT_EQ(sortKey("--"), "");
  EXPECT_LT(orderKey("emile"), orderKey("Émile"));
  EXPECT_LT(orderKey("Émile"), orderKey("Emilia"));
  EXPECT_LT(orderKey("Øresund"), orderKey("Paris"));
}

TEST(Filter, SourcesContentScopesAndDislikedTracks) {
  const auto index = indexOf(
      {T().title("A").artist("Moodymann").path("/m/House/a.mp3").bpm(118).key("Am"),
       T().title("B").artist("Other").albumArtist("Moodymann").path("/m/House/sub/b.flac"),
       T().title("Set").ms(3'600'000).path("/m/Mixes/set.mp3"),
       T().title("Hit").ms(900).path("/m/Samples/hit.wav"),
       T().title("Hated").disliked().path("/m/House/c.mp3"),
       T().title("Clip").path("/m/v.mp4").missing()});
  FilterQuery q;
  q.source = Source::inFolder("/m/House/");
  const FilterResult house = runFilter(*index, q);
  EXPECT_THAT(ids(*index, house), ElementsAre(1, 2));
  EXPECT_EQ(house.stats.hiddenDisliked, 1);
  EXPECT_FALSE(house.stats.wholeLibrary);
  EXPECT_THAT(run(*index, [] {
                FilterQuery d;
                d.source = Source::of(Category::disliked);
                return d;
              }()),
              ElementsAre(5));
  // A list keeps its own order, without the disliked track.
  q.source = Source::tracks({6, 5, 3, 1, 99});
  EXPECT_THAT(run(*index, q), ElementsAre(6, 3, 1));

  q = {};
  for (auto [content, want] : {std::pair{Content::mixes, 3}, {Content::sounds, 4},
                               {Content::videos, 6}}) {
    q.content = content;
    EXPECT_THAT(run(*index, q), ElementsAre(want)) << contentName(content);
  }
  q.content = Content::music;
  EXPECT_THAT(run(*index, q), ElementsAre(1, 2));

  auto scoped = [&](std::string key, std::string value) {
    FilterQuery s;
    s.scope = Scope{std::move(key), std::move(value)};
    return run(*index, s);
  };
  EXPECT_THAT(scoped("artist", "moodymann"), ElementsAre(1, 2));  // album artist counts
  EXPECT_THAT(scoped("key", "8A"), ElementsAre(1));
  EXPECT_THAT(scoped("bpm", "118"), ElementsAre(1));
  EXPECT_THAT(scoped("bpm", "110-120"), ElementsAre(1));
  EXPECT_THAT(scoped("lossless", ""), ElementsAre(2, 4));
  EXPECT_THAT(scoped("missing", "yes"), ElementsAre(6));
  EXPECT_THAT(scoped("missing", "no"), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(scoped("mood", "x"), ElementsAre(1, 2, 3, 4, 6));  // an unknown key
}

TEST(Filter, BrowserColumnsAndTheirSelection) {
  const auto index = indexOf(
      {T().artist("Moodymann").album("Black Mahogani").genre("deep house"),
       T().artist("moodymann ").album("Silentintroduction").genre("Deep House"),
       T().artist("Various").albumArtist("DJ Koze").album("Reincarnations").compilation()
           .genre("Techno"),
       T().artist("'Aphex Twin").album("Drukqs").genre("")});
  FilterQuery q;
  q.browser.shown = true;
  FilterResult r = runFilter(*index, q);
  ASSERT_TRUE(r.browser);
  // Case and blanks make no second entry; the first spelling met is shown.
  EXPECT_THAT(r.browser->genres, ElementsAre("deep house", "Techno"));
  EXPECT_THAT(r.browser->artists, ElementsAre("'Aphex Twin", "Moodymann", "Various"));
  EXPECT_THAT(r.browser->albums,
              ElementsAre("Black Mahogani", "Drukqs", "Reincarnations", "Silentintroduction"));
  EXPECT_EQ(r.stats.artists, 3);
  EXPECT_EQ(r.stats.albums, 4);

  q.browser.groupCompilations = true;
  q.browser.useAlbumArtists = true;
  r = runFilter(*index, q);
  EXPECT_THAT(r.browser->artists, ElementsAre("Compilations", "'Aphex Twin", "Moodymann"));
  q.selection.artists = {"Compilations"};
  EXPECT_THAT(ids(*index, runFilter(*index, q)), ElementsAre(3));
  q.selection = {};
  q.selection.genres = {"DEEP HOUSE"};
  q.selection.albums = {"silentintroduction"};
  EXPECT_THAT(ids(*index, runFilter(*index, q)), ElementsAre(2));
  // A hidden browser does not filter.
  q.browser.shown = false;
  EXPECT_THAT(ids(*index, runFilter(*index, q)), ElementsAre(1, 2, 3, 4));
}

TEST(Filter, StatisticsOfWhatIsShown) {
  const auto index = indexOf({T().bpm(40).ms(60'000).size(1'000'000).cues(2).artist("A"),
                              T().bpm(250).ms(120'000).size(2'000'000).artist("a"),
                              T().bpm(120).ms(std::nullopt).size(500).album("X"),
                              T().bpm(130).musicPID("ABC").album("x"),
                              T().disliked().bpm(90)});
  const FilterResult r = runFilter(*index, FilterQuery{});
  const ViewStats& s = r.stats;
  EXPECT_EQ(s.tracks, 4);
  EXPECT_EQ(s.totalMs, 480'000);
  EXPECT_EQ(s.totalBytes, 3'000'500);
  EXPECT_DOUBLE_EQ(s.avgBPM, 125);  // 40 and 250 left out
  EXPECT_EQ(s.withCues, 1);
  EXPECT_EQ(s.artists, 1);
  EXPECT_EQ(s.albums, 1);
  EXPECT_EQ(s.hiddenDisliked, 1);
  EXPECT_EQ(s.sharedWithMusic, 1);
  EXPECT_EQ(s.libraryTotal, 5);
  EXPECT_TRUE(s.wholeLibrary);
  EXPECT_EQ(statusText(s),
            "4 tracks \u00b7 8 min \u00b7 3 MB \u00b7 1 artist \u00b7 1 album \u00b7 1 with cues"
            " \u00b7 avg 125 BPM \u00b7 1 disliked hidden \u00b7 1 shared with Music");
  EXPECT_THAT(logLine(r), ::testing::MatchesRegex(
                              "refilter [0-9]+ms \\[browse [0-9]+ · sort [0-9]+ · stats [0-9]+\\] "
                              "-> 4 rows"));
}

TEST(Filter, CategoryCountsAndTempoBands) {
  std::vector<T> tracks{T().loved().added(kNow - 86400).bpm(124),
                        T().disliked().loved(),
                        T().title("x (Remix)").added(kNow - 40 * 86400).missing(),
                        T().path("/m/a.wav").title("Song (Instrumental)")};
  LibrarySets sets;
  sets.duplicates = {1, 3};
  sets.damaged = {4};
  const auto index = indexOf(tracks, sets);
  const auto counts = categoryCounts(*index, kNow);
  auto count = [&](Category c) { return counts[static_cast<size_t>(c)]; };
  EXPECT_EQ(count(Category::allTracks), 3);
  EXPECT_EQ(count(Category::loved), 1);  // the disliked one is only "disliked"
  EXPECT_EQ(count(Category::disliked), 1);
  EXPECT_EQ(count(Category::recentlyAdded), 1);
  EXPECT_EQ(count(Category::duplicates), 2);
  EXPECT_EQ(count(Category::damaged), 1);
  EXPECT_EQ(count(Category::missing), 1);
  EXPECT_EQ(count(Category::remixes), 1);
  EXPECT_EQ(count(Category::uncompressed), 1);
  EXPECT_EQ(count(Category::instrumentals), 1);
  EXPECT_EQ(count(Category::noBPM), 2);
  FilterQuery q;
  q.source = Source::of(Category::duplicates);
  EXPECT_THAT(run(*index, q), ElementsAre(1, 3));

  EXPECT_EQ(tempoCuts(*index), (std::array<double, 4>{82, 92, 100, 116}));
  std::vector<T> many;
  for (int i = 0; i < 1000; ++i) many.push_back(T().bpm(60 + i / 8.0));
  many.push_back(T().bpm(300));  // outside 30–260: left out
  EXPECT_EQ(tempoCuts(*indexOf(many)), (std::array<double, 4>{85, 110, 135, 160}));
}

TEST(Filter, APatchedIndexShowsTheEditAndKeepsWhatDidNotChange) {
  const auto index = indexOf({T().title("a").artist("X").genre("House"),
                              T().title("b").artist("Y").genre("House"),
                              T().title("c").artist("Z").genre("Techno")});
  // Warm the artist and rating columns.
  EXPECT_THAT(run(*index, sorted({{SortField::artist}})), ElementsAre(1, 2, 3));
  EXPECT_THAT(run(*index, sorted({{SortField::rating, false}})), ElementsAre(1, 2, 3));
  TrackRow edited = index->row(2);
  edited.rating = 100;
  edited.setText(TrackRow::Text::genre, "Electro");
  TrackRow moved = index->row(1);
  moved.setText(TrackRow::Text::artist, "A first");
  const auto next = index->patched(std::vector<TrackRow>{edited, moved}, std::vector<int64_t>{1});
  EXPECT_THAT(run(*next, sorted({{SortField::rating, false}})), ElementsAre(3, 2));
  EXPECT_THAT(run(*next, sorted({{SortField::artist}})), ElementsAre(2, 3));
  EXPECT_THAT(run(*next, search("electro")), ElementsAre(3));
  FilterQuery browse;
  browse.browser.shown = true;
  EXPECT_THAT(runFilter(*next, browse).browser->genres, ElementsAre("Electro", "House"));
  // The old index still shows the library as it was.
  EXPECT_THAT(run(*index, search("electro")), IsEmpty());
  EXPECT_THAT(run(*index, FilterQuery{}), ElementsAre(1, 2, 3));
}

}  // namespace
}  // namespace orvel::library
