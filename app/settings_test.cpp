#include "app/settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace orvel::app {
namespace {
namespace fs = std::filesystem;
using Sections = std::vector<std::string>;

// Every case starts from a user who never changed a preference.
class SettingsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const auto& key : settings_.allKeys()) settings_.remove(key);
  }
  Settings settings_;
};

TEST_F(SettingsTest, ValuesAreWrittenToTheConfigFolderAtOnce) {
  settings_.setPlayHistoryLimit(3);
  settings_.setSoftMuteLevel(25.5);
  settings_.setKeyNotation("camelot");
  settings_.setWatchMusicFolder(true);
  settings_.setMediaRoot(fs::path("/music/Ordered Collection"));
  settings_.setLibSections({"artists", "loved"});
  settings_.setLastLibraryBackup(1763150000.25);

  // A command-line process exits right after writing; the file must be there.
#ifndef __APPLE__
  const fs::path file = fs::path(std::getenv("XDG_CONFIG_HOME")) / "Orvel/Orvel.conf";
  EXPECT_EQ(fs::path(settings_.location()), file);
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  for (const char* line : {"playHistoryLimit=3", "keyNotation=camelot", "watchMusicFolder=true",
                           "mediaRoot=/music/Ordered Collection", "softMuteLevel=25.5"}) {
    EXPECT_NE(text.str().find(line), std::string::npos) << line << " missing from\n" << text.str();
  }
#endif

  const Settings other;
  EXPECT_EQ(other.mediaRoot(), fs::path("/music/Ordered Collection"));
  EXPECT_EQ(other.libSections(), (Sections{"artists", "loved"}));
  EXPECT_DOUBLE_EQ(other.lastLibraryBackup(), 1763150000.25);
}

TEST_F(SettingsTest, MissingAndUnusableValuesReadAsDefaults) {
  EXPECT_EQ(settings_.playHistoryLimit(), 200);
  EXPECT_DOUBLE_EQ(settings_.softMuteLevel(), 10.0);
  EXPECT_EQ(settings_.keyNotation(), "standard");
  EXPECT_EQ(settings_.mediaRoot(), std::nullopt);

  for (int limit : {0, -4}) {
    settings_.setPlayHistoryLimit(limit);
    EXPECT_EQ(settings_.playHistoryLimit(), 200) << limit;
  }
  settings_.setKeyNotation("openKey");
  EXPECT_EQ(settings_.keyNotation(), "openKey");
  for (const char* unknown : {"solfege", "Camelot"}) {
    settings_.setKeyNotation(unknown);
    EXPECT_EQ(settings_.keyNotation(), "standard") << unknown;
  }
  settings_.setMediaRoot(fs::path("/music"));
  settings_.setMediaRoot(fs::path());
  EXPECT_EQ(settings_.mediaRoot(), std::nullopt);
  EXPECT_FALSE(settings_.contains(keys::kMediaRoot));
}

TEST_F(SettingsTest, DefaultSectionsAreSwitchedOnOncePerUser) {
  settings_.setLibSections({"artists", "loved"});
  settings_.enableDefaultSections();
  // Added at the end, never twice.
  EXPECT_EQ(settings_.libSections(), (Sections{"artists", "loved", "disliked"}));

  // The user hides "loved"; later launches must respect that.
  settings_.setLibSections({"artists", "disliked"});
  settings_.enableDefaultSections();
  EXPECT_EQ(Settings().libSections(), (Sections{"artists", "disliked"}));

  EXPECT_FALSE(settings_.enableSectionOnce("loved"));
  EXPECT_TRUE(settings_.enableSectionOnce("genres"));
  EXPECT_EQ(Settings().libSections(), (Sections{"artists", "disliked", "genres"}));
}

}  // namespace
}  // namespace orvel::app
