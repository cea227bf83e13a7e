#include "app/assistant.h"

#include <gmock/gmock.h>

#include <QCoreApplication>
#include <QTimer>
#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "app/settings.h"
#include "app/testing/fake_messages_api.h"
#include "core/store/locations.h"
#include "core/store/read_only_catalogue.h"
#include "core/testing/store_fixture.h"

namespace orvel::app {
namespace {

using nlohmann::json;
using testing::FakeApi;
using ::testing::HasSubstr;
using ::testing::Not;

class MemorySecrets : public SecretStore {
 public:
  SecretRead read(std::string_view name) override {
    auto it = values.find(std::string(name));
    if (it == values.end()) return {};
    return {it->second, {}};
  }
  std::string write(std::string_view name, std::string_view value) override {
    values[std::string(name)] = value;
    return {};
  }
  std::string remove(std::string_view name) override {
    values.erase(std::string(name));
    return {};
  }
  std::map<std::string, std::string> values;
};

constexpr auto kKey = "sk-ant-test-0123456789";

class AskTest : public orvel::testing::StoreTest {
 protected:
  static void SetUpTestSuite() {
    // The network classes need an application object; one per process.
    static int argc = 1;
    static char name[] = "orvel_app_test";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance() == nullptr) static QCoreApplication app(argc, argv);
  }
  void SetUp() override {
    qunsetenv("ORVEL_AI_KEY");
    for (const char* proxy : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"})
      qunsetenv(proxy);
    Settings().setAiBaseURL(api_.baseURL());
    secrets_.values["aiKey"] = kKey;
    alpha_ = add("/music/Alpha.mp3", "Alpha");
    beta_ = add("/music/Beta.mp3", "Beta");
    gamma_ = add("/music/Gamma Update.mp3", "Gamma update mix");
  }
  void TearDown() override { Settings().remove(keys::kAiBaseURL); }
  int64_t liveTracks() { return db().scalarInt("SELECT COUNT(*) FROM tracks").value_or(-1); }

  FakeApi api_;
  MemorySecrets secrets_;
  AI ai_{secrets_, dbPath()};
  int64_t alpha_ = 0, beta_ = 0, gamma_ = 0;
};

TEST_F(AskTest, SendsTheQuestionAndRunsTheFencedQuery) {
  api_.replyText(
      "```sql\nSELECT id FROM tracks WHERE title LIKE '%a%' COLLATE NOCASE\n"
      "AND title NOT LIKE '%beta%' ORDER BY id DESC;\n```\n");
  const TrackQueryResult r = ai_.trackQuery("tracks with an a, not beta");
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.statement,
            "SELECT id FROM tracks WHERE title LIKE '%a%' COLLATE NOCASE\n"
            "AND title NOT LIKE '%beta%' ORDER BY id DESC");
  EXPECT_EQ(r.ids, (std::vector<int64_t>{gamma_, alpha_}));

  EXPECT_EQ(api_.requestLine, "POST /v1/messages HTTP/1.1");
  EXPECT_EQ(api_.headers["content-type"], "application/json");
  EXPECT_EQ(api_.headers["x-api-key"], kKey);
  EXPECT_EQ(api_.headers["anthropic-version"], "2023-06-01");
  const json sent = json::parse(api_.body);
  EXPECT_EQ(sent["model"], "claude-sonnet-5");
  EXPECT_EQ(sent["max_tokens"], 1500);
  EXPECT_EQ(sent["messages"],
            json::parse(R"([{"role":"user","content":"tracks with an a, not beta"}])"));
  const std::string system = sent["system"];
  EXPECT_EQ(system, AI::trackQuerySystem());
  // The three parts meet with exactly one blank line between them.
  EXPECT_TRUE(system.starts_with("You write SQLite queries"));
  EXPECT_THAT(system, HasSubstr("no markdown fence.\n\nTABLE tracks\n  id INTEGER\n"));
  EXPECT_THAT(system, HasSubstr("  removed INTEGER\n\nRules:\n- SELECT only."));
  EXPECT_TRUE(system.ends_with("- End with LIMIT 2000."));
}

TEST_F(AskTest, RefusesAnythingButOnePlainSelectAndLeavesTheCatalogueAlone) {
  for (const char* reply :
       {"SELECT id FROM tracks; DROP TABLE tracks", "```\nDELETE FROM tracks\n```",
        "select id from tracks where title like '%update %'",
        "WITH gone AS (SELECT id FROM tracks) DELETE FROM tracks"}) {
    api_.replyText(reply);
    const TrackQueryResult r = ai_.trackQuery("anything");
    EXPECT_FALSE(r.ok()) << reply;
    EXPECT_THAT(r.error, HasSubstr("not a plain SELECT")) << reply;
    EXPECT_TRUE(r.ids.empty()) << reply;
    EXPECT_EQ(liveTracks(), 3) << reply;
  }
  api_.replyText("SELECT id FROM tracks ORDER BY id;  \n");
  const TrackQueryResult r = ai_.trackQuery("everything");
  EXPECT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.ids, (std::vector<int64_t>{alpha_, beta_, gamma_}));
}

TEST_F(AskTest, ReportsTheServiceErrorsWithoutTheKey) {
  api_.status = 529;
  api_.reply = R"({"type":"error","error":{"type":"overloaded_error","message":"overloaded"}})";
  EXPECT_EQ(ai_.ask("s", "q", 10).error, "overloaded");

  api_.status = 500;
  api_.reply = "<html>Internal error</html>";
  EXPECT_EQ(ai_.ask("s", "q", 10).error, "HTTP 500");

  api_.status = 401;
  api_.reply = json{{"error", {{"message", std::string("invalid x-api-key: ") + kKey}}}}.dump();
  AskResult r = ai_.ask("s", "q", 10);
  EXPECT_FALSE(r.text);
  EXPECT_THAT(r.error, HasSubstr("invalid x-api-key"));
  EXPECT_THAT(r.error, Not(HasSubstr(kKey)));

  api_.status = 200;
  api_.reply = R"({"content":[]})";
  r = ai_.ask("s", "q", 10);
  EXPECT_FALSE(r.text);
  EXPECT_FALSE(r.error.empty());
  api_.reply = "not json";
  EXPECT_FALSE(ai_.ask("s", "q", 10).text);

  // Nothing listens on the port of a server that has gone.
  {
    FakeApi gone;
    Settings().setAiBaseURL(gone.baseURL());
  }
  r = ai_.ask("s", "q", 10);
  EXPECT_FALSE(r.text);
  EXPECT_THAT(r.error, HasSubstr("Could not reach the AI service"));
  EXPECT_THAT(r.error, Not(HasSubstr(kKey)));
}

TEST_F(AskTest, NeedsAKeyFromTheStoreOrTheEnvironment) {
  secrets_.values.clear();
  const TrackQueryResult r = ai_.trackQuery("anything");
  EXPECT_EQ(r.error, "Add an API key in Settings → AI.");
  EXPECT_EQ(api_.requests, 0);

  qputenv("ORVEL_AI_KEY", "sk-from-env");
  api_.replyText("hi");
  EXPECT_EQ(ai_.ask("s", "q", 10).text, "hi");
  EXPECT_EQ(api_.headers["x-api-key"], "sk-from-env");
  qunsetenv("ORVEL_AI_KEY");
}

TEST_F(AskTest, CancelStopsARequestThatNeverAnswers) {
  api_.silent = true;
  bool busyWhileWaiting = false;
  QTimer::singleShot(100, [&] {
    busyWhileWaiting = ai_.busy();
    ai_.cancel();
  });
  const AskResult r = ai_.ask("s", "q", 10);
  EXPECT_EQ(r.error, "Cancelled.");
  EXPECT_TRUE(busyWhileWaiting);
  EXPECT_FALSE(ai_.busy());
  EXPECT_EQ(api_.requests, 1);
}

// What a hostile or broken server can try: the key goes nowhere but the
// configured address, and a slow answer cannot hold the exchange open.
TEST_F(AskTest, TheKeyNeverLeavesForAnotherServerAndOneDeadlineHolds) {
  FakeApi elsewhere;
  elsewhere.replyText("SELECT id FROM tracks");
  api_.redirectTo = elsewhere.baseURL() + "/v1/messages";
  AskResult r = ai_.ask("s", "q", 10);
  EXPECT_FALSE(r.text);
  EXPECT_THAT(r.error, HasSubstr("was not followed"));
  EXPECT_THAT(r.error, HasSubstr(elsewhere.baseURL()));
  EXPECT_EQ(elsewhere.requests, 0);

  api_.redirectTo.clear();
  api_.trickle = true;
  api_.replyText(std::string(100, 'x'));
  ai_.setLimits({.exchange = std::chrono::milliseconds(600)});
  const auto started = std::chrono::steady_clock::now();
  r = ai_.ask("s", "q", 10);
  EXPECT_EQ(r.error, "The AI service did not answer within 0.6 seconds.");
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));

  // A password in the address is neither shown nor logged.
  api_.trickle = false;
  {
    FakeApi gone;
    const std::string base = gone.baseURL();
    Settings().setAiBaseURL("http://dj:hunter2@" + base.substr(std::string("http://").size()));
  }
  r = ai_.ask("s", "q", 10);
  EXPECT_THAT(r.error, HasSubstr("http://***@127.0.0.1:"));
  EXPECT_THAT(r.error, Not(HasSubstr("hunter2")));
  std::ifstream logFile(locations::logFile());
  const std::string logged((std::istreambuf_iterator<char>(logFile)), {});
  EXPECT_THAT(logged, Not(HasSubstr("hunter2")));
  EXPECT_EQ(withoutCredentials("https://a:b@host:8/p"), "https://***@host:8/p");
  EXPECT_EQ(withoutCredentials("https://host/p"), "https://host/p");
}

TEST_F(AskTest, OnlyAColumnOfTrackIdsIsTakenAndAQueryCannotRunForEver) {
  ai_.setLimits({.query = std::chrono::milliseconds(200), .rows = 2});
  for (const auto& [reply, why] : std::vector<std::pair<const char*, const char*>>{
           {"SELECT path FROM tracks", "tracks.path, not the track id"},
           {"SELECT rating FROM tracks", "tracks.rating, not the track id"},
           {"SELECT 1 FROM tracks LIMIT 2", "not track ids"},
           {"SELECT 'x' FROM tracks LIMIT 1", "other than track ids"},
           {"SELECT id FROM tracks", "more than 2 tracks"},
           {"SELECT id FROM tracks WHERE id IN (WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL "
            "SELECT x + 1 FROM c) SELECT x FROM c)",
            "ran longer than 0.2 s"}}) {
    api_.replyText(reply);
    const TrackQueryResult r = ai_.trackQuery("q");
    EXPECT_FALSE(r.ok()) << reply;
    EXPECT_THAT(r.error, HasSubstr(why)) << reply;
    EXPECT_TRUE(r.ids.empty()) << reply;
  }
  // A query that forgot the live condition still lists only library tracks.
  ASSERT_TRUE(db().tracks().softRemove(std::vector<int64_t>{beta_}));
  api_.replyText("SELECT id FROM tracks WHERE id <= " + std::to_string(beta_));
  const TrackQueryResult r = ai_.trackQuery("q");
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.ids, std::vector<int64_t>{alpha_});
}

TEST_F(AskTest, TheReadOnlyCatalogueCannotWriteWhateverItIsGiven) {
  db();  // the store keeps the catalogue open, as the program does
  const ReadOnlyCatalogue catalogue(dbPath());
  for (const char* sql :
       {"DELETE FROM tracks RETURNING id",
        "WITH gone AS (SELECT id FROM tracks) DELETE FROM tracks "
        "WHERE id IN gone RETURNING id",
        "INSERT INTO tracks(path) VALUES('/x.mp3') RETURNING id",
        "SELECT id FROM tracks; DROP TABLE tracks", "ATTACH 'elsewhere.db' AS other"}) {
    const auto ran = catalogue.idsFromSelect(sql);
    EXPECT_TRUE(std::holds_alternative<std::string>(ran)) << sql;
  }
  // Lifting query_only is allowed, and still the read-only open holds.
  catalogue.idsFromSelect("PRAGMA query_only=OFF");
  EXPECT_TRUE(std::holds_alternative<std::string>(catalogue.idsFromSelect("DELETE FROM tracks")));
  EXPECT_EQ(liveTracks(), 3);
  EXPECT_FALSE(std::filesystem::exists(dir_.path() / "elsewhere.db"));
  const auto ran = catalogue.idsFromSelect("SELECT id FROM tracks WHERE title = 'Beta'; -- done");
  ASSERT_TRUE(std::holds_alternative<std::vector<int64_t>>(ran));
  EXPECT_EQ(std::get<std::vector<int64_t>>(ran), std::vector<int64_t>{beta_});
}

TEST(AskText, SafeSelectGate) {
  EXPECT_TRUE(AI::isSafeSelect("SELECT id FROM tracks"));
  EXPECT_TRUE(AI::isSafeSelect("select id from tracks where bpm > 120;"));
  EXPECT_TRUE(AI::isSafeSelect("SELECT id FROM tracks WHERE title LIKE '%updated%'"));
  EXPECT_FALSE(AI::isSafeSelect("  SELECT id FROM tracks"));
  EXPECT_FALSE(AI::isSafeSelect("WITH t AS (SELECT 1) SELECT id FROM tracks"));
  EXPECT_FALSE(AI::isSafeSelect("SELECT id FROM tracks; SELECT 1"));
  // Words that write are refused wherever they stand, quoted text included:
  // the gate is a cheap first check, the read-only open the real guarantee.
  for (const char* bad : {"Select 1 from x where y in (insert into t values(1))",
                          "SELECT id FROM tracks WHERE 'a' = 'ALTER TABLE'",
                          "SELECT ATTACH DATABASE", "SELECT 1 REPLACE INTO t"})
    EXPECT_FALSE(AI::isSafeSelect(bad)) << bad;
}

TEST(AskText, CleanReplyStripsFencesAndSemicolons) {
  EXPECT_EQ(AI::cleanReply("```sql\nSELECT id FROM tracks;\n```"), "SELECT id FROM tracks");
  EXPECT_EQ(AI::cleanReply("\n  ```SQLite\nSELECT 1\n```\n\n"), "SELECT 1");
  EXPECT_EQ(AI::cleanReply("```\nSELECT 2;;\n```"), "SELECT 2");
  EXPECT_EQ(AI::cleanReply("\tSELECT id FROM tracks ; \r\n"), "SELECT id FROM tracks");
  // Backticks inside an unfenced reply are the query's own.
  EXPECT_EQ(AI::cleanReply("SELECT `id` FROM tracks"), "SELECT `id` FROM tracks");
}

}  // namespace
}  // namespace orvel::app
