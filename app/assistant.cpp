#include "app/assistant.h"

#include <fmt/format.h>

#include <QByteArray>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <regex>

#include "app/klog.h"
#include "app/settings.h"
#include "core/store/connection.h"
#include "core/store/read_only_catalogue.h"

namespace orvel::app {

const std::string_view kAskPrivacyNote =
    "Your question and the database SCHEMA — the column names below, not their contents. The "
    "model writes a query; Orvel runs it here. Your tracks, tags, lyrics, file paths and audio "
    "never leave this Mac.";

namespace {

using nlohmann::json;

constexpr std::string_view kModel = "claude-sonnet-5";
constexpr std::string_view kNoKey = "Add an API key in Settings → AI.";

constexpr std::string_view kQueryTask =
    "You write SQLite queries against a music library. Reply with ONE SQL statement and nothing "
    "else — no explanation, no markdown fence.\n\n";

constexpr std::string_view kQuerySchema = R"(TABLE tracks
  id INTEGER
  title, artist, album, genre, comment, grouping, label, year   TEXT
  bpm REAL
  key TEXT                Camelot or classical notation, may be empty
  duration_ms INTEGER
  bitrate_kbps INTEGER
  samplerate_hz INTEGER
  filesize_bytes INTEGER
  file_type TEXT          NOT the extension. The only values present are:
                          mp3, wave, quicktime, aiff, and empty. Never filter on
                          'wav', 'm4a', 'mp4' or 'mov' here - they do not exist in
                          this column. Match real formats with LOWER(path) LIKE.
  production INTEGER      1 = sample-bank / sound-design material rather than a
                          song: one-shots, loops, stabs, drum hits.
  path TEXT               full path on disk
  date_added INTEGER      unix seconds
  date_created INTEGER    unix seconds
  play_count INTEGER
  rating INTEGER          0-100, where 20 = one star, so 100 = five stars
  has_artwork INTEGER     1 or 0
  lyrics TEXT             plain lyrics, often NULL — only fetched tracks have them
  lyrics_synced TEXT      LRC format with timestamps, often NULL
  file_missing INTEGER    1 when the file is gone from disk
  merged_into INTEGER     NOT NULL only on rows superseded by a merge
  removed INTEGER)";

constexpr std::string_view kQueryRules = R"(

Rules:
- SELECT only. Never INSERT, UPDATE, DELETE, DROP, ALTER, ATTACH or PRAGMA.
- Always SELECT id FROM tracks (the id column alone, nothing else).
- Always include: merged_into IS NULL AND COALESCE(removed,0)=0
- Use LIKE with COLLATE NOCASE for text. Wrap patterns in %.
- When the question is about a THEME or FEELING rather than an exact word, expand it into the words that actually appear in lyrics, joined with OR. For "songs about heartbreak" search for heartbreak, broken heart, she left, crying, lonely, miss you, and so on. Cast a wide net — ten or more terms.
- Lyrics are NULL on most rows. A lyrics question must say lyrics IS NOT NULL.
- "Rated" means rating >= 20. Stars are rating/20.
- VIDEO is not a column. A video is a file extension: LOWER(path) LIKE '%.mp4' OR LOWER(path) LIKE '%.mov' OR LOWER(path) LIKE '%.m4v' Use that whenever the question says video, clip, or footage.
- A MIX or DJ set is a long single file: duration_ms > 1200000.
- SAMPLES, one-shots, loops, stabs and drum hits are production = 1. When the question is about songs or tracks and not about samples, add COALESCE(production,0)=0.
- Answer EVERY part of the question. "videos without an artist tag" has two conditions and dropping either one gives the wrong answer.
- End with LIMIT 2000.)";

std::string trimmed(std::string_view s, std::string_view chars) {
  const size_t first = s.find_first_not_of(chars);
  if (first == std::string_view::npos) return {};
  return std::string(s.substr(first, s.find_last_not_of(chars) - first + 1));
}

// A server may echo request headers into an error page; the key must not
// travel on from there into a message or the log.
std::string withoutKey(std::string text, const std::string& key) {
  if (key.empty()) return text;
  for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at))
    text.replace(at, key.size(), "…");
  return text;
}

struct BusyFlag {
  explicit BusyFlag(std::atomic<bool>& f) : flag(f) { flag = true; }
  ~BusyFlag() { flag = false; }
  std::atomic<bool>& flag;
};

AskResult failure(std::string message) {
  klog("ask: " + message);
  return {std::nullopt, std::move(message)};
}

}  // namespace

std::string withoutCredentials(std::string_view url) {
  QUrl parsed(QString::fromUtf8(url.data(), static_cast<qsizetype>(url.size())));
  if (!parsed.isValid() || parsed.userInfo().isEmpty()) {
    // Not a URL Qt reads: still hide whatever sits between "//" and "@".
    std::string text(url);
    const size_t scheme = text.find("//");
    const size_t at = text.find('@', scheme == std::string::npos ? 0 : scheme);
    const size_t slash = text.find('/', scheme == std::string::npos ? 0 : scheme + 2);
    if (scheme != std::string::npos && at != std::string::npos && at < slash)
      text.replace(scheme + 2, at - scheme - 2, "***");
    return text;
  }
  parsed.setUserInfo(QStringLiteral("***"));
  return parsed.toString().toStdString();
}

AI::AI(SecretStore& secrets, std::string catalogPath)
    : secrets_(secrets), catalogPath_(std::move(catalogPath)) {}

AskResult AI::ask(const std::string& system, const std::string& user, int maxTokens) {
  BusyFlag busy(busy_);
  cancelled_ = false;

  std::string key;
  if (const char* env = std::getenv(std::string(kAiKeyEnvironment).c_str())) key = env;
  if (key.empty()) {
    SecretRead stored = secrets_.read(kAiKeyName);
    if (!stored.error.empty())
      return failure(stored.error + " (" + std::string(kAiKeyEnvironment) +
                     " in the environment works without one)");
    key = stored.value.value_or("");
  }
  if (trimmed(key, " \t\r\n").empty()) return failure(std::string(kNoKey));

  const std::string base = Settings().aiBaseURL();
  const std::string shownBase = withoutCredentials(base);
  QNetworkRequest request(QUrl(QString::fromStdString(base + "/v1/messages")));
  request.setRawHeader("Content-Type", "application/json");
  request.setRawHeader("x-api-key", QByteArray::fromStdString(key));
  request.setRawHeader("anthropic-version", "2023-06-01");
  // A redirect would carry the key to wherever the server points; none is
  // followed, and the answer names where it pointed.
  request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                       QNetworkRequest::ManualRedirectPolicy);

  const json body{{"model", kModel},
                  {"max_tokens", maxTokens},
                  {"system", system},
                  {"messages", json::array({{{"role", "user"}, {"content", user}}})}};
  const std::string payload = body.dump(-1, ' ', false, json::error_handler_t::replace);

  QNetworkAccessManager network;
  QNetworkReply* reply = network.post(request, QByteArray::fromStdString(payload));
  {
    std::lock_guard lock(replyMutex_);
    reply_ = reply;
  }
  if (cancelled_) reply->abort();
  QEventLoop loop;
  QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
  // One deadline for the whole exchange: a transfer timeout restarts with
  // every byte, so a server sending one a second would hold us for ever.
  bool timedOut = false;
  QTimer deadline;
  deadline.setSingleShot(true);
  QObject::connect(&deadline, &QTimer::timeout, reply, [reply, &timedOut] {
    timedOut = true;
    reply->abort();
  });
  deadline.start(limits_.exchange);
  if (!reply->isFinished()) loop.exec();
  deadline.stop();
  {
    std::lock_guard lock(replyMutex_);
    reply_ = nullptr;
  }

  if (cancelled_) return failure("Cancelled.");
  if (timedOut)
    return failure(fmt::format("The AI service did not answer within {:g} seconds.",
                               std::chrono::duration<double>(limits_.exchange).count()));
  const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
  if (!statusAttribute.isValid()) {
    return failure(withoutKey("Could not reach the AI service at " + shownBase + ": " +
                                  reply->errorString().toStdString(),
                              key));
  }
  const int status = statusAttribute.toInt();
  if (status >= 300 && status <= 399) {
    const QUrl target = reply->attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
    return failure("The AI service at " + shownBase + " sent the request on to " +
                   withoutCredentials(reply->url().resolved(target).toString().toStdString()) +
                   "; it was not followed, so the key went nowhere else. Check the aiBaseURL "
                   "setting.");
  }
  const QByteArray raw = reply->readAll();
  const json answer = json::parse(raw.begin(), raw.end(), nullptr, false);

  if (status < 200 || status > 299) {
    if (answer.is_object() && answer.contains("error") && answer["error"].is_object()) {
      const json& error = answer["error"];
      if (error.contains("message") && error["message"].is_string())
        return failure(withoutKey(error["message"].get<std::string>(), key));
    }
    return failure("HTTP " + std::to_string(status));
  }
  if (answer.is_discarded()) return failure("The AI service's reply was not JSON.");
  if (answer.is_object() && answer.contains("content") && answer["content"].is_array() &&
      !answer["content"].empty()) {
    const json& first = answer["content"].front();
    if (first.is_object() && first.contains("text") && first["text"].is_string()) {
      klog("ask: answered, HTTP " + std::to_string(status));
      return {first["text"].get<std::string>(), {}};
    }
  }
  return failure("The AI service's reply had no text.");
}

void AI::cancel() {
  cancelled_ = true;
  std::lock_guard lock(replyMutex_);
  // The reply lives on the asking thread; abort it there. A reply gone by the
  // time the call arrives takes the call with it.
  if (reply_ != nullptr)
    QMetaObject::invokeMethod(reply_, &QNetworkReply::abort, Qt::QueuedConnection);
}

TrackQueryResult AI::trackQuery(const std::string& question) {
  TrackQueryResult result;
  if (trimmed(question, " \t\r\n").empty()) {
    result.error = "Ask a question first.";
    return result;
  }
  const AskResult reply = ask(trackQuerySystem(), question, 1500);
  if (!reply.text) {
    result.error = reply.error;
    return result;
  }
  result.statement = cleanReply(*reply.text);
  if (!isSafeSelect(result.statement)) {
    result.error =
        "The assistant's query was not a plain SELECT, so it was not run: " + result.statement;
    klog("ask: refused a query that was not a plain SELECT");
    return result;
  }
  try {
    const ReadOnlyCatalogue catalogue(catalogPath_);
    auto ran = catalogue.idsFromSelect(result.statement, {limits_.query, limits_.rows});
    if (auto* why = std::get_if<std::string>(&ran))
      result.error = "The assistant's query was not used: " + *why;
    else
      result.ids = std::move(std::get<std::vector<int64_t>>(ran));
  } catch (const StoreError& e) {
    result.error = std::string("Could not open the catalogue to read: ") + e.what();
  }
  return result;
}

std::string AI::trackQuerySystem() {
  std::string text;
  text.reserve(kQueryTask.size() + kQuerySchema.size() + kQueryRules.size());
  text.append(kQueryTask).append(kQuerySchema).append(kQueryRules);
  return text;
}

std::string AI::cleanReply(std::string_view reply) {
  std::string text = trimmed(reply, " \t\r\n");
  if (text.starts_with("```")) {
    static const std::regex opening("```[a-zA-Z]*\n");
    text = std::regex_replace(text, opening, "");
    for (size_t at = text.find("```"); at != std::string::npos; at = text.find("```", at))
      text.erase(at, 3);
  }
  return trimmed(text, " \t\r\n;");
}

bool AI::isSafeSelect(std::string_view sql) {
  std::string lower(sql);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) {
    return static_cast<char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
  });
  if (!lower.starts_with("select")) return false;
  // One statement: a semicolon may only close it.
  if (lower.substr(0, lower.size() - 1).find(';') != std::string::npos) return false;
  for (std::string_view word : {"insert ", "update ", "delete ", "drop ", "alter ", "create ",
                                "attach ", "detach ", "pragma ", "vacuum", "replace into"})
    if (lower.find(word) != std::string::npos) return false;
  return true;
}

}  // namespace orvel::app
