#include "core/store/snapshots.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>

#include "core/store/locations.h"
#include "core/store/log.h"

namespace orvel {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "orvel-";
constexpr std::string_view kExtension = ".db";
constexpr std::string_view kPartial = ".partial";
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

std::string localStamp(int64_t at) {
  const auto t = static_cast<std::time_t>(at);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y%m%d-%H%M%S", &tm);
  return buf;
}

std::optional<int64_t> parseStamp(std::string_view s) {
  if (s.size() != 15 || s[8] != '-') return std::nullopt;
  for (size_t i = 0; i < s.size(); ++i)
    if (i != 8 && (s[i] < '0' || s[i] > '9')) return std::nullopt;
  const auto num = [&](size_t from, size_t n) {
    int v = 0;
    std::from_chars(s.data() + from, s.data() + from + n, v);
    return v;
  };
  std::tm tm{};
  tm.tm_year = num(0, 4) - 1900;
  tm.tm_mon = num(4, 2) - 1;
  tm.tm_mday = num(6, 2);
  tm.tm_hour = num(9, 2);
  tm.tm_min = num(11, 2);
  tm.tm_sec = num(13, 2);
  tm.tm_isdst = -1;
  const std::time_t t = std::mktime(&tm);
  if (t == static_cast<std::time_t>(-1)) return std::nullopt;
  return static_cast<int64_t>(t);
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

Snapshots::Snapshots(const Connection& conn, std::optional<fs::path> dir)
    : conn_(conn), dir_(dir ? std::move(*dir) : locations::snapshotsDir()) {}

std::string Snapshots::fileName(std::string_view reason, int64_t at, int sequence) {
  std::string name = std::string(kPrefix) + localStamp(at);
  if (sequence > 1) name += "-" + std::to_string(sequence);
  if (!reason.empty()) name += "--" + encodeReason(reason);
  return name + std::string(kExtension);
}

std::optional<Snapshots::Snap> Snapshots::parse(const fs::path& file) {
  const std::string name = file.filename().string();
  if (!name.starts_with(kPrefix) || !name.ends_with(kExtension)) return std::nullopt;
  std::string_view rest(name);
  rest.remove_prefix(kPrefix.size());
  rest.remove_suffix(kExtension.size());
  if (rest.size() < 15) return std::nullopt;
  const auto at = parseStamp(rest.substr(0, 15));
  if (!at) return std::nullopt;
  rest.remove_prefix(15);

  Snap snap;
  snap.file = file;
  snap.at = *at;
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
  std::vector<Snap> snaps;
  std::error_code ec;
  for (fs::directory_iterator it(dir_, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    auto snap = parse(it->path());
    if (!snap) continue;
    std::error_code sizeError;
    const auto bytes = fs::file_size(it->path(), sizeError);
    snap->bytes = sizeError ? 0 : static_cast<int64_t>(bytes);
    snaps.push_back(std::move(*snap));
  }
  std::sort(snaps.begin(), snaps.end(), [](const Snap& a, const Snap& b) {
    return a.at != b.at ? a.at > b.at : a.sequence > b.sequence;
  });
  return snaps;
}

std::optional<fs::path> Snapshots::take(std::string_view reason, int64_t minInterval) {
  lastError_.clear();
  const int64_t now = unixNow();
  const auto snaps = list();
  if (minInterval > 0 && !snaps.empty() && now - snaps.front().at < minInterval)
    return std::nullopt;
  std::error_code ec;
  fs::create_directories(dir_, ec);
  if (ec) {
    lastError_ = "cannot create " + dir_.string() + ": " + ec.message();
    note("Snapshot FAILED: " + lastError_);
    return std::nullopt;
  }
  // Snapshots of the same second are told apart by a sequence number, so
  // that their order survives whatever their reasons say.
  int sequence = 1;
  for (const Snap& snap : snaps)
    if (snap.at == now) sequence = std::max(sequence, snap.sequence + 1);
  fs::path target;
  do {
    target = dir_ / fileName(reason, now, sequence++);
  } while (fs::exists(target, ec));
  fs::path partial = target;
  partial += kPartial;
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
