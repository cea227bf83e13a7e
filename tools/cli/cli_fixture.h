// The command line end to end, in-process: each `orvel` call opens the
// catalogue afresh, as separate runs of the program would. The fixture holds
// three tracks and the playlists "Sets" (#1) and "Sets / Warm-up" (#2).
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "core/testing/store_fixture.h"
#include "tools/cli/cli.h"

namespace orvel::cli {

using nlohmann::json;

struct Result {
  int code;
  std::string out;
  std::string err;
};

class CliTest : public orvel::testing::StoreTest {
 protected:
  void SetUp() override {
    a_ = add("/music/Floorplan/Never Grow Old.mp3", "Never Grow Old", 300);
    b_ = add("/music/Moodymann/Shades of Jae.flac", "Shades of Jae", 200);
    c_ = add("/music/DJ Koze/XTC.mp3", "XTC", 100);
    const auto op =
        db().tracks().setField("artist", "Floorplan", std::vector<int64_t>{a_}, "Edit Artist");
    ASSERT_TRUE(op) << op.error();
    db().execChecked(fmt::format(
        "INSERT INTO playlists(id, name, parent_id) VALUES(1, 'Sets', NULL), (2, 'Warm-up', 1);"
        "INSERT INTO playlist_tracks VALUES(2, {}, 0), (2, {}, 1)",
        c_, a_));
    db_.reset();  // the command line opens its own connection
  }
  Result orvel(std::vector<std::string> args) {
    args.insert(args.begin(), {"--db", dbPath()});
    std::ostringstream out, err;
    const int code = run(args, out, err);
    return {code, out.str(), err.str()};
  }
  json orvelJson(std::vector<std::string> args) {
    args.push_back("--json");
    const Result r = orvel(args);
    EXPECT_EQ(r.code, 0) << r.err;
    return json::parse(r.out);
  }
  std::string opOf(const Result& r) {
    const auto at = r.out.find("orvel undo ");
    return at == std::string::npos ? "" : r.out.substr(at + 11, r.out.find(')', at) - at - 11);
  }
  json track(int64_t id) { return orvelJson({"show", std::to_string(id)}); }

  int64_t a_ = 0, b_ = 0, c_ = 0;
};

}  // namespace orvel::cli
