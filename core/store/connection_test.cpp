// Transactions across threads and processes, and the change feed.
#include "core/store/connection.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <atomic>
#include <thread>

#include "core/testing/store_fixture.h"

namespace orvel {
namespace {

using testing::StoreTest;

class ConnectionTest : public StoreTest {
 protected:
  void listen(const OrvelDB& store) {
    store.connection().subscribe([this](const ChangeSet& set) { heard_.push_back(set); });
  }
  std::vector<ChangeSet> heard_;
};

// Thread A keeps opening transactions, editing and rolling back while
// thread B edits through its own connection. Every edit B was told it made
// must be there, with its history; nothing of A may be.
TEST_F(ConnectionTest, ARollbackOnOneThreadLosesNothingOfAnother) {
  const int64_t a = add("/m/a.mp3", "A");
  const int64_t b = add("/m/b.mp3", "B");
  db_.reset();
  constexpr int kRounds = 60;
  std::vector<std::string> kept;
  std::atomic<bool> started{false};
  std::thread rollbacks([&] {
    OrvelDB store(dbPath());
    started = true;
    for (int i = 0; i < kRounds; ++i) {
      Transaction tx(store.connection());
      ASSERT_TRUE(tx) << tx.status().message();
      ASSERT_TRUE(store.tracks().setField("title", "lost " + std::to_string(i),
                                          std::vector<int64_t>{a}, "Edit Title"));
      // tx rolls back here
    }
  });
  std::thread edits([&] {
    OrvelDB store(dbPath());
    while (!started) std::this_thread::yield();
    for (int i = 0; i < kRounds; ++i) {
      auto op = store.tracks().setField("genre", "kept " + std::to_string(i),
                                        std::vector<int64_t>{b}, "Edit Genre");
      ASSERT_TRUE(op) << op.error();
      kept.push_back(*op);
    }
  });
  rollbacks.join();
  edits.join();

  OrvelDB& store = db();
  EXPECT_EQ(field(a, "title"), "A");
  EXPECT_EQ(field(b, "genre"), "kept " + std::to_string(kRounds - 1));
  EXPECT_EQ(store.scalarInt("SELECT COUNT(*) FROM history WHERE op_name = 'Edit Title'"), 0);
  for (const auto& op : kept) EXPECT_EQ(store.journal().entries(op).size(), 1u) << op;
}

TEST_F(ConnectionTest, AWriterHeldOffPastTheTimeoutFailsCleanly) {
  const int64_t a = add("/m/a.mp3", "A");
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(dbPath().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);

  db().connection().setBusyTimeout(50);
  const int64_t history = db().count("history");
  Transaction tx(db().connection());
  EXPECT_FALSE(tx);
  EXPECT_EQ(tx.status().code(), Status::Code::busy);
  const auto op = db().tracks().setField("title", "B", std::vector<int64_t>{a}, "Edit Title");
  ASSERT_FALSE(op);
  EXPECT_EQ(op.status().code(), Status::Code::busy);
  EXPECT_FALSE(db().connection().inTransaction());

  sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(other);
  EXPECT_EQ(field(a, "title"), "A");
  EXPECT_EQ(db().count("history"), history);
  EXPECT_TRUE(db().tracks().setField("title", "B", std::vector<int64_t>{a}, "Edit Title"));
  EXPECT_EQ(field(a, "title"), "B");
}

TEST_F(ConnectionTest, EveryCommittedEditIsHeardOnceAndRollbacksNotAtAll) {
  const int64_t a = add("/m/a.mp3", "A");
  const int64_t b = add("/m/b.mp3", "B");
  listen(db());
  const uint64_t before = db().connection().generation();

  const auto op = db().tracks().setField("genre", "House", std::vector<int64_t>{a, b}, "Genre");
  ASSERT_TRUE(op);
  ASSERT_EQ(heard_.size(), 1u);
  EXPECT_EQ(heard_[0].generation, before + 1);
  EXPECT_FALSE(heard_[0].external);
  EXPECT_EQ(heard_[0].tables.at("tracks").ids, (std::vector<int64_t>{a, b}));
  EXPECT_TRUE(heard_[0].touches("history"));
  EXPECT_FALSE(heard_[0].touches("tracks", 999));

  ASSERT_TRUE(db().journal().undo(*op));
  ASSERT_TRUE(db().journal().redo(*op));
  ASSERT_EQ(heard_.size(), 3u);
  EXPECT_TRUE(heard_[1].touches("tracks", a));
  EXPECT_TRUE(heard_[2].touches("tracks", b));

  {
    Transaction outer(db().connection());
    ASSERT_TRUE(outer);
    ASSERT_TRUE(db().tracks().setField("genre", "Gone", std::vector<int64_t>{a}, "Genre"));
  }
  EXPECT_EQ(heard_.size(), 3u);  // rolled back: nothing to hear

  {
    // Nested transactions publish once, at the outermost commit, without
    // the part that was rolled back.
    Transaction outer(db().connection());
    ASSERT_TRUE(outer);
    ASSERT_TRUE(db().tracks().setField("title", "A2", std::vector<int64_t>{a}, "Title"));
    {
      Transaction inner(db().connection());
      ASSERT_TRUE(db().execChecked("INSERT INTO playlists(name) VALUES('Dropped')") ==
                  std::nullopt);
    }
    EXPECT_EQ(heard_.size(), 3u);
    ASSERT_TRUE(outer.commit());
  }
  ASSERT_EQ(heard_.size(), 4u);
  EXPECT_FALSE(heard_[3].touches("playlists"));
  EXPECT_EQ(heard_[3].tables.at("tracks").ids, (std::vector<int64_t>{a}));

  // A write outside any transaction is heard when it commits on its own.
  ASSERT_EQ(db().execChecked("UPDATE tracks SET rating = 60 WHERE id = " + std::to_string(b)),
            std::nullopt);
  ASSERT_EQ(heard_.size(), 5u);
  EXPECT_EQ(heard_[4].generation, before + 5);
}

TEST_F(ConnectionTest, ChangesFromAnotherConnectionAreHeardAsAllRows) {
  const int64_t a = add("/m/a.mp3", "A");
  listen(db());
  EXPECT_FALSE(db().connection().checkExternalChanges());
  {
    OrvelDB other(dbPath());
    ASSERT_TRUE(other.tracks().setField("genre", "Dub", std::vector<int64_t>{a}, "Genre"));
  }
  EXPECT_TRUE(heard_.empty());  // only a look notices another process
  EXPECT_TRUE(db().connection().checkExternalChanges());
  ASSERT_EQ(heard_.size(), 1u);
  EXPECT_TRUE(heard_[0].external);
  EXPECT_TRUE(heard_[0].tables.at("tracks").allRows);
  EXPECT_TRUE(heard_[0].touches("tracks", a));
  EXPECT_FALSE(db().connection().checkExternalChanges());  // once per change
}

TEST_F(ConnectionTest, BulkWorkIsHeardAsAllRows) {
  listen(db());
  {
    Transaction tx(db().connection());
    ASSERT_TRUE(tx);
    Statement ins = db().prepare("INSERT INTO play_history(track_id, at) VALUES(?, ?)");
    for (int64_t i = 0; i < int64_t(ChangeLog::kMaxIdsPerTable) + 1; ++i) {
      ins.reset();
      ins.bind(1, i).bind(2, i).stepCode();
    }
    ASSERT_TRUE(tx.commit());
  }
  ASSERT_EQ(heard_.size(), 1u);
  EXPECT_TRUE(heard_[0].tables.at("play_history").allRows);
  EXPECT_TRUE(heard_[0].tables.at("play_history").ids.empty());
}

}  // namespace
}  // namespace orvel
