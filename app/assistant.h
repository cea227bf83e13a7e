// The "Ask" assistant: a question in plain words becomes one SQL query over
// the catalogue, written by Anthropic's Messages API and run here, read-only.
// Only the question and the column names leave the machine.
//
// `ask` and `trackQuery` block until the answer arrives, waiting in a local
// event loop; the command line calls them directly, the window from a worker
// thread so its own loop keeps drawing. `cancel` may come from any thread. A
// QCoreApplication must exist.
//
// What comes from outside is not trusted: the key is sent to the configured
// address only (a redirect elsewhere is not followed), the whole exchange
// has one deadline however slowly a server trickles its answer, and the
// model's query runs read-only with a time limit and a row cap and must
// return track ids.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/secret_store.h"

class QNetworkReply;

namespace orvel::app {

// Where the key is kept, and the environment variable that, when set, is used
// instead (for scripts and headless machines; never stored anywhere).
inline constexpr std::string_view kAiKeyName = "aiKey";
inline constexpr std::string_view kAiKeyEnvironment = "ORVEL_AI_KEY";

// What is sent, in words for the window and the command line's help.
extern const std::string_view kAskPrivacyNote;

struct AskResult {
  std::optional<std::string> text;
  std::string error;  // set exactly when there is no text
};

struct TrackQueryResult {
  std::string statement;     // the cleaned query, also when it was refused
  std::vector<int64_t> ids;  // in the query's order
  std::string error;         // empty when the query ran
  bool ok() const { return error.empty(); }
};

// A URL with any user name and password in it replaced by "***", for every
// place the address is shown or logged.
std::string withoutCredentials(std::string_view url);

class AI {
 public:
  // The time the whole exchange with the service may take, and what the
  // model's query may take.
  struct Limits {
    std::chrono::milliseconds exchange{60'000};
    std::chrono::milliseconds query{5'000};
    size_t rows = 100'000;
  };

  AI(SecretStore& secrets, std::string catalogPath);
  void setLimits(const Limits& limits) { limits_ = limits; }
  AI(const AI&) = delete;
  AI& operator=(const AI&) = delete;

  AskResult ask(const std::string& system, const std::string& user, int maxTokens);
  // Asks for a query answering `question` and runs it over the catalogue.
  TrackQueryResult trackQuery(const std::string& question);

  bool busy() const { return busy_; }
  // Stops the request under way; its `ask` returns "Cancelled."
  void cancel();

  // The system text `trackQuery` sends: what to write, the columns, the rules.
  static std::string trackQuerySystem();
  // The model's reply as a bare statement: no fence, no trailing semicolon.
  static std::string cleanReply(std::string_view reply);
  // A cheap first gate before anything runs: one SELECT, no writing words.
  static bool isSafeSelect(std::string_view sql);

 private:
  SecretStore& secrets_;
  std::string catalogPath_;
  Limits limits_;
  std::atomic<bool> busy_{false};
  std::atomic<bool> cancelled_{false};
  std::mutex replyMutex_;
  QNetworkReply* reply_ = nullptr;
};

}  // namespace orvel::app
