#include "core/store/snapshots.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>

#include "core/platform/partial_file.h"
#include "core/store/locations.h"
#include "core/store/log.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtension = ".db";
// Keeps the whole name well inside the 255 bytes every file system allows.
constexpr size_t kMaxReasonBytes = 80;

bool needsEscape(unsigned char c) {
  return c < 0x20 || c == 0x7f || c == '%' || c == '/' || c == '\\' || c == ':' || c == '*' ||
         c == '?' || c == '"' || c == '<' || c == '>' || c == '|';
}

// Percent-escapes what a file name cannot (or should not) hold; everything
// else, accents included, stays readable in the folder.
std::string encodeReason(std::string_view reason) {
  size_t cut = std::min(reason.size(), kMaxReasonBytes);
  while (cut > 0 && cut < reason.size() && (static_cast<unsigned char>(reason[cut]) & 0xC0) == 0x80)
    --cut;  // never split a UTF-8 sequence
  std::string out;
  for (unsigned char c : reason.substr(0, cut)) {
    if (needsEscape(c)) {
      static constexpr char kHex[] = "0123456789ABCDEF";
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

std::string decodeReason(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    if (text[i] == '%' && i + 2 < text.size()) {
      const auto [end, ec] = std::from_chars(text.data() + i + 1, text.data() + i + 3, value, 16);
      if (ec == std::errc() && end == text.data() + i + 3) {
        out += static_cast<char>(value);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

bool isStamp(std::string_view s) {
  if (s.size() != 15 || s[8] != '-') return false;
  for (size_t i = 0; i < s.size(); ++i)
    if (i != 8 && (s[i] < '0' || s[i] > '9')) return false;
  return true;
}

int64_t unixSeconds(fs::file_time_type t) {
  using namespace std::chrono;
  return duration_cast<seconds>(file_clock::to_sys(t).time_since_epoch()).count();
}

std::string quoteForSql(const std::string& text) {
  std::string out;
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out;
}

}  // namespace

Snapshots::Snapshots(const Connection& conn, std::optional<fs::path> dir, std::string prefix)
    : conn_(conn),
      dir_(dir ? std::move(*dir) : locations::snapshotsDir()),
      prefix_(std::move(prefix)) {}

std::string Snapshots::fileName(std::string_view reason, int64_t at, int sequence) const {
  std::string name = prefix_ + localTimeText(at, "%Y%m%d-%H%M%S");
  if (sequence > 1) name += "-" + std::to_string(sequence);
  if (!reason.empty()) name += "--" + encodeReason(reason);
  return name + std::string(kExtension);
}

std::optional<Snapshots::Snap> Snapshots::parse(const fs::path& file) const {
  const std::string name = file.filename().string();
  if (!name.starts_with(prefix_) || !name.ends_with(kExtension)) return std::nullopt;
  std::string_view rest(name);
  rest.remove_prefix(prefix_.size());
  rest.remove_suffix(kExtension.size());
  if (rest.size() < 15 || !isStamp(rest.substr(0, 15))) return std::nullopt;
  rest.remove_prefix(15);

  Snap snap;
  snap.file = file;
  if (rest.starts_with("-") && !rest.starts_with("--")) {
    rest.remove_prefix(1);
    const auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), snap.sequence);
    if (ec != std::errc() || snap.sequence < 1) return std::nullopt;
    rest.remove_prefix(static_cast<size_t>(end - rest.data()));
  }
  if (rest.starts_with("--")) {
    snap.reason = decodeReason(rest.substr(2));
  } else if (!rest.empty()) {
    return std::nullopt;
  }
  return snap;
}

std::vector<Snapshots::Snap> Snapshots::list() const {
  std::vector<std::pair<fs::file_time_type, Snap>> found;
  std::error_code ec;
  for (fs::directory_iterator it(dir_, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    auto snap = parse(it->path());
    if (!snap) continue;
    std::error_code statError;
    const auto bytes = fs::file_size(it->path(), statError);
    snap->bytes = statError ? 0 : static_cast<int64_t>(bytes);
    const auto modified = fs::last_write_time(it->path(), statError);
    snap->at = statError ? 0 : unixSeconds(modified);
    found.emplace_back(statError ? fs::file_time_type() : modified, std::move(*snap));
  }
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    if (a.first != b.first) return a.first > b.first;
    return a.second.file.filename() > b.second.file.filename();
  });
  std::vector<Snap> snaps;
  snaps.reserve(found.size());
  for (auto& f : found) snaps.push_back(std::move(f.second));
  return snaps;
}

std::optional<fs::path> Snapshots::take(std::string_view reason, int64_t minInterval) {
  lastError_.clear();
  const int64_t now = unixNow();
  const auto snaps = list();
  // A newest copy dated in the future (the clock was put back) is not recent.
  if (minInterval > 0 && !snaps.empty() && snaps.front().at <= now &&
      now - snaps.front().at < minInterval)
    return std::nullopt;
  std::error_code ec;
  fs::create_directories(dir_, ec);
  if (ec) {
    lastError_ = "cannot create " + dir_.string() + ": " + ec.message();
    note("Snapshot FAILED: " + lastError_);
    return std::nullopt;
  }
  removeAbandonedPartials(dir_, prefix_);
  // Snapshots of the same second are told apart by a sequence number.
  int sequence = 1;
  const std::string stamp = fileName("", now, 1).substr(0, prefix_.size() + 15);
  for (const Snap& snap : snaps)
    if (snap.file.filename().string().starts_with(stamp))
      sequence = std::max(sequence, snap.sequence + 1);
  fs::path target;
  do {
    target = dir_ / fileName(reason, now, sequence++);
  } while (fs::exists(target, ec));
  const fs::path partial = partialName(target);
  fs::remove(partial, ec);

  if (auto error = conn_.execChecked("VACUUM INTO '" + quoteForSql(partial.string()) + "'")) {
    fs::remove(partial, ec);
    lastError_ = *error;
    note("Snapshot FAILED: " + lastError_ + " (" + target.string() + ")");
    return std::nullopt;
  }
  fs::rename(partial, target, ec);
  if (ec) {
    fs::remove(partial, ec);
    lastError_ = "cannot name the copy " + target.string() + ": " + ec.message();
    note("Snapshot FAILED: " + lastError_);
    return std::nullopt;
  }
  note("Snapshot " + target.string());
  prune(kKeep, kMaxBytes);
  return target;
}

void Snapshots::prune(int keep, int64_t maxBytes) const {
  int64_t total = 0;
  int kept = 0;
  for (const Snap& snap : list()) {
    total += snap.bytes;
    const bool stays = kept == 0 || (kept < keep && total <= maxBytes);
    if (stays) {
      ++kept;
      continue;
    }
    std::error_code ec;
    fs::remove(snap.file, ec);
  }
}

}  // namespace orvel
