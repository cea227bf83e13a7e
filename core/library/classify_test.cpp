#include "core/library/classify.h"

#include <gmock/gmock.h>

#include "core/testing/track_rows.h"

namespace orvel::library {
namespace {

using testing::T;

TrackFacts facts(const T& t, bool isrc = false) {
  return factsOf(t.row(), isrc);
}

TEST(Classify, ContentIsVideoSoundMixOrMusic) {
  EXPECT_EQ(facts(T().title("Song")).content(), Content::music);
  EXPECT_EQ(facts(T().path("/v/clip.MP4")).content(), Content::videos);
  EXPECT_EQ(facts(T().title("Kick 03").ms(1200)).content(), Content::sounds);
  EXPECT_EQ(facts(T().title("Pad").production()).content(), Content::sounds);
  EXPECT_EQ(facts(T().title("Boiler Room").ms(3'600'000)).content(), Content::mixes);
  EXPECT_EQ(facts(T().title("Summer").genre("DJ Mix").ms(600'000)).content(),
            Content::mixes);
  // A version named in the title is a track, not a mix.
  EXPECT_EQ(facts(T().title("Strings (Original Mix)")).content(), Content::music);
  EXPECT_EQ(facts(T().title("Strings (Extended Mix)")).content(), Content::music);
  EXPECT_EQ(contentNamed("mixes"), Content::mixes);
  EXPECT_FALSE(contentNamed("Jazz"));
}

TEST(Classify, WordsAndExtensionsDecideTheKinds) {
  EXPECT_TRUE(facts(T().title("Tune (Acapella)")).acapella);
  EXPECT_TRUE(facts(T().title("Tune").comment("a cappella version")).acapella);
  EXPECT_FALSE(facts(T().title("Capella Grey")).acapella);
  EXPECT_TRUE(facts(T().title("Tune (Instrumental)")).instrumental);
  EXPECT_TRUE(facts(T().title("Tune (Inst)")).instrumental);
  EXPECT_TRUE(facts(T().title("Tune (Someone Remix)")).remix);
  EXPECT_TRUE(facts(T().title("Tune (DJ Edit)")).remix);
  EXPECT_TRUE(facts(T().title("Tune (Re-Edit)")).remix);
  EXPECT_FALSE(facts(T().title("Tune (Radio Edit)")).remix);
  EXPECT_FALSE(facts(T().title("Editor's Choice")).remix);
  EXPECT_TRUE(facts(T().title("Tune (Live)")).live);
  EXPECT_TRUE(facts(T().title("Tune").album("Live at Fabric")).live);
  EXPECT_FALSE(facts(T().title("Live Your Life")).live);
  EXPECT_TRUE(facts(T().title("Drums").grouping("Stems")).stem);
  EXPECT_TRUE(facts(T().path("/m/Tune.stem.mp4")).stem);
  EXPECT_FALSE(facts(T().title("Stemming the Tide")).stem);
  EXPECT_TRUE(facts(T().genre("SFX")).soundFx);
  EXPECT_TRUE(facts(T().path("/lib/SFX/horn.wav")).soundFx);
  EXPECT_TRUE(facts(T().path("/m/a.aiff")).uncompressed);
  EXPECT_FALSE(facts(T().path("/m/a.flac")).uncompressed);
  EXPECT_TRUE(facts(T().path("/m/a.flac")).lossless);
  EXPECT_TRUE(facts(T().path("/m/a.m4a").kbps(900)).lossless);
  EXPECT_FALSE(facts(T().path("/m/a.m4a").kbps(256)).lossless);
  EXPECT_TRUE(facts(T().title("Tune").comment("dubplate")).unreleased);
  EXPECT_TRUE(facts(T().title("Tune").label("Warp").year("1999")).released);
  EXPECT_TRUE(facts(T().title("Tune"), true).released);
  EXPECT_FALSE(facts(T().title("Tune (WIP)").label("Warp").year("2024"), true).released);
}

TEST(Classify, CategoryMaskHoldsEveryKindAndEveryGap) {
  TrackRow r = T().title("Tune (Acapella)").path("/m/a.wav").row();
  r.missing = true;
  r.loved = true;
  const uint32_t mask = categoryMask(r, factsOf(r, false));
  for (Category c : {Category::allTracks, Category::music, Category::acapellas,
                     Category::uncompressed, Category::missing, Category::loved,
                     Category::noArtist, Category::noAlbum, Category::noYear, Category::noKey,
                     Category::noBPM})
    EXPECT_TRUE(mask & bit(c)) << categoryKey(c);
  for (Category c : {Category::mixes, Category::disliked, Category::released, Category::videos})
    EXPECT_FALSE(mask & bit(c)) << categoryKey(c);
  EXPECT_EQ(categoryNamed("noBPM"), Category::noBPM);
  EXPECT_EQ(categoryKey(Category::recentlyAdded), "recentlyAdded");
}

}  // namespace
}  // namespace orvel::library
