#include "core/import/importer.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <unordered_set>

#include "core/import/production.h"
#include "core/platform/os.h"
#include "core/platform/partial_file.h"
#include "core/store/connection.h"
#include "core/store/orvel_db.h"
#include "core/text/split.h"

namespace fs = std::filesystem;

namespace orvel::Importer {
namespace {

std::string errnoText(int err) {
  return std::strerror(err);
}

// What the file system says about a file before it is read.
struct FileFacts {
  int64_t size = 0;
  std::optional<int64_t> created;  // birth time where the file system keeps one, else mtime
};

std::optional<FileFacts> factsOf(const fs::path& file, std::string& why) {
  struct stat st {};
  if (::stat(file.c_str(), &st) != 0) {
    why = errno == ENOENT ? "the file is gone" : errnoText(errno);
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode)) {
    why = "not a regular file";
    return std::nullopt;
  }
  if (st.st_size == 0) {
    why = "the file is empty";
    return std::nullopt;
  }
  // TagLib opening a file it cannot read looks the same as a file without
  // tags; an unreadable file must fail instead of becoming a silent row.
  if (::access(file.c_str(), R_OK) != 0) {
    why = "cannot read the file: " + errnoText(errno);
    return std::nullopt;
  }
  FileFacts facts;
  facts.size = st.st_size;
  const platform::FileTimes times = platform::fileTimes(file, st);
  facts.created = times.born.value_or(times.modified);
  return facts;
}

// Copies under a hidden partial name in the destination folder, then
// renames, so a crash never leaves a partial file under the real name (a
// partial file would later be taken for a different song of the same name),
// and the importer and the watcher never take the partial copy for a track.
bool copyInto(const fs::path& source, const fs::path& dest, std::string& why) {
  const fs::path temp = partialName(dest, kCopyPrefix);
  std::error_code ec;
  fs::copy_file(source, temp, fs::copy_options::overwrite_existing, ec);
  if (!ec) {
    // Keep the file's own date: DJs sort by it.
    const auto when = fs::last_write_time(source, ec);
    if (!ec) fs::last_write_time(temp, when, ec);
    ec.clear();
    fs::rename(temp, dest, ec);
  }
  if (ec) {
    why = "cannot copy to " + dest.string() + ": " + ec.message();
    fs::remove(temp, ec);
    return false;
  }
  return true;
}

// Whether two files hold the same bytes.
bool sameContent(const fs::path& a, const fs::path& b) {
  std::error_code ec;
  const auto size = fs::file_size(a, ec);
  if (ec || fs::file_size(b, ec) != size || ec) return false;
  std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
  if (!fa || !fb) return false;
  std::vector<char> ba(1 << 16), bb(1 << 16);
  while (fa && fb) {
    fa.read(ba.data(), static_cast<std::streamsize>(ba.size()));
    fb.read(bb.data(), static_cast<std::streamsize>(bb.size()));
    if (fa.gcount() != fb.gcount() || !std::equal(ba.begin(), ba.begin() + fa.gcount(), bb.begin()))
      return false;
  }
  return fa.eof() && fb.eof();
}

std::string fileStem(const fs::path& file) {
  std::string stem = file.stem().string();
  return stem.empty() ? file.filename().string() : stem;
}

// Collects prepared rows (one per file) and writes them in short transactions: the reading
// of tags happens outside any transaction, so the catalogue is never held
// for longer than the inserts take.
class Batcher {
 public:
  Batcher(OrvelDB& db, Result& result) : db_(db), result_(result) {}

  void add(NewTrack p) {
    if (pending_.empty()) since_ = std::chrono::steady_clock::now();
    pending_.push_back(std::move(p));
  }

  bool due() const {
    return pending_.size() >= 200 ||
           (!pending_.empty() && std::chrono::steady_clock::now() - since_ > kMaxHold);
  }

  void flush() {
    if (pending_.empty()) return;
    std::vector<int64_t> added;
    int64_t dupes = 0;
    std::vector<Failure> failures;
    Status written;
    {
      Transaction tx(db_.connection());
      // Asked in every batch: a source row made in a batch that then failed
      // to commit is gone with it.
      const auto source = tx ? db_.tracks().orvelSourceId() : orvel::Result<int64_t>(tx.status());
      written = source.status();
      if (written) {
        for (const NewTrack& p : pending_) {
          ImportOutcome outcome{};
          const auto id = db_.tracks().insertImported(p, *source, &outcome);
          if (!id && id.status().blocksEveryWrite()) {
            written = id.status();
            break;
          }
          if (!id)
            failures.push_back({p.path, "the catalogue did not take it: " + id.error()});
          else if (outcome == ImportOutcome::reused)
            ++dupes;
          else
            added.push_back(*id);
        }
        if (written) written = tx.commit();
      }
    }
    if (written) {
      result_.added.insert(result_.added.end(), added.begin(), added.end());
      result_.dupes += dupes;
    } else if (written.blocksEveryWrite()) {
      // The catalogue cannot take any row (locked, read-only, full,
      // damaged): one cause, not a line per file, and no point going on.
      failures.clear();
      result_.stopped = written;
      result_.notReached += static_cast<int64_t>(pending_.size());
    } else {
      // Nothing of the batch is in the catalogue, whatever each insert said.
      failures.clear();
      for (const NewTrack& p : pending_)
        failures.push_back({p.path, "the catalogue could not be written: " + written.message()});
    }
    for (auto& f : failures) result_.failures.push_back(std::move(f));
    result_.failed = static_cast<int64_t>(result_.failures.size());
    pending_.clear();
  }

 private:
  static constexpr auto kMaxHold = std::chrono::milliseconds(250);
  OrvelDB& db_;
  Result& result_;
  std::vector<NewTrack> pending_;
  std::chrono::steady_clock::time_point since_;
};

NewTrack rowFor(const std::string& path, const Tags& tags, const FileFacts& facts,
                std::string_view folder) {
  NewTrack t;
  t.path = path;
  t.filename = std::string(lastPathComponent(path));
  t.title = tags.title ? tags.title : std::optional<std::string>(fileStem(fs::path(path)));
  t.artist = tags.artist.value_or("Unknown Artist");
  t.album = tags.album.value_or("Unknown Album");
  t.genre = tags.genre;
  t.durationMs = tags.durationMs;
  t.filesizeBytes = facts.size;
  t.dateCreated = facts.created;
  t.production = isProductionMaterial(
      {tags.genre.value_or(""), tags.grouping.value_or(""), tags.comment.value_or(""), folder});
  t.year = tags.year;
  t.comment = tags.comment;
  t.grouping = tags.grouping;
  t.label = tags.publisher;
  t.bitrateKbps = tags.bitrateKbps;
  t.samplerateHz = tags.sampleRateHz;
  t.fileType = tags.fileType;
  t.bpm = tags.bpm;
  t.key = tags.key;
  t.albumArtist = tags.albumArtist;
  t.composer = tags.composer;
  t.trackNumber = tags.trackNumber;
  t.trackCount = tags.trackCount;
  t.discNumber = tags.discNumber;
  t.discCount = tags.discCount;
  t.compilation = tags.compilation;
  t.sortTitle = tags.sortTitle;
  t.sortArtist = tags.sortArtist;
  t.sortAlbum = tags.sortAlbum;
  t.sortAlbumArtist = tags.sortAlbumArtist;
  t.sortComposer = tags.sortComposer;
  return t;
}

}  // namespace

bool isAudioFile(std::string_view file) {
  const std::string ext = extensionOf(file);
  return std::find(std::begin(audioExts), std::end(audioExts), ext) != std::end(audioExts);
}

bool isSkipped(std::string_view file) {
  const std::string_view name = lastPathComponent(file);
  return name.starts_with("._") || name.starts_with(kCopyPrefix);
}

namespace {

// Walks a folder at any depth without following symlinked folders, naming
// the folders that cannot be read instead of passing over them in silence.
void walk(const fs::path& dir, std::vector<std::string>& files, std::vector<Failure>& problems) {
  std::error_code ec;
  fs::directory_iterator it(dir, ec), end;
  if (ec) {
    problems.push_back({dir.string(), "cannot read this folder: " + ec.message()});
    return;
  }
  for (; it != end; it.increment(ec)) {
    if (ec) {
      problems.push_back({dir.string(), "cannot read all of this folder: " + ec.message()});
      return;
    }
    std::error_code typeError;
    const auto status = it->symlink_status(typeError);
    if (fs::is_directory(status))
      walk(it->path(), files, problems);
    else if (it->is_regular_file(typeError))
      files.push_back(it->path().native());
  }
}

}  // namespace

Expanded expandReporting(std::span<const fs::path> urls) {
  // Paths are handled as plain strings here: std::filesystem compares paths
  // component by component, which costs more than the walk itself on a big
  // library.
  Expanded out;
  std::unordered_set<std::string> seen;
  auto keep = [&](std::string p) {
    if (!isAudioFile(p) || isSkipped(p)) return false;
    if (seen.insert(p).second) out.files.emplace_back(std::move(p));
    return true;
  };
  for (const fs::path& url : urls) {
    std::error_code ec;
    fs::path root = fs::absolute(url, ec).lexically_normal();
    if (ec) continue;
    if (!root.has_filename() && root.has_parent_path()) root = root.parent_path();  // "dir/"
    if (fs::is_directory(root, ec)) {
      std::vector<std::string> inside;
      walk(root, inside, out.problems);
      std::sort(inside.begin(), inside.end());
      bool any = false;
      for (auto& p : inside) any = keep(std::move(p)) || any;
      if (!any)
        out.problems.push_back(
            {root.string(), fmt::format("no audio files in it ({})", fmt::join(audioExts, ", "))});
    } else if (fs::is_regular_file(root, ec)) {
      if (!keep(root.native()))
        out.problems.push_back(
            {root.string(), isSkipped(root.native())
                                ? "not an audio file (a companion file or an unfinished copy)"
                                : fmt::format("not an audio file Orvel imports ({})",
                                              fmt::join(audioExts, ", "))});
    }
  }
  return out;
}

std::vector<fs::path> expand(std::span<const fs::path> urls) {
  return expandReporting(urls).files;
}

std::string folderName(const std::optional<std::string>& tag, std::string_view fallback) {
  std::string name = tag.value_or(std::string(fallback));
  std::replace(name.begin(), name.end(), '/', '-');
  std::replace(name.begin(), name.end(), ':', '-');
  // Most file systems take 255 bytes per name; leave room for " 12.ext".
  constexpr size_t kMaxName = 200;
  const std::string out(trim(utf8Prefix(trim(name), kMaxName)));
  if (out.find_first_not_of('.') == std::string::npos) return std::string(fallback);
  return out;
}

bool isInside(const fs::path& path, const fs::path& root) {
  const fs::path p = path.lexically_normal(), r = root.lexically_normal();
  auto pi = p.begin();
  for (auto ri = r.begin(); ri != r.end(); ++ri, ++pi) {
    if (ri->empty() && std::next(ri) == r.end()) break;  // a trailing "/" on the root
    if (pi == p.end() || *pi != *ri) return false;
  }
  return true;
}

std::optional<Destination> copyDestination(const fs::path& source, const fs::path& folder) {
  std::error_code ec;
  const auto size = fs::file_size(source, ec);
  const std::string stem = source.stem().string(), ext = source.extension().string();
  for (int n = 0; n < 10000; ++n) {
    const fs::path candidate =
        folder / (n == 0 ? source.filename().string() : stem + " " + std::to_string(n) + ext);
    std::error_code existsEc;
    if (!fs::exists(candidate, existsEc)) return Destination{candidate, false};
    const auto there = fs::file_size(candidate, existsEc);
    if (!existsEc && !ec && there == size && sameContent(source, candidate))
      return Destination{candidate, true};
  }
  return std::nullopt;
}

std::optional<NewTrack> trackFromFile(const fs::path& file, std::string& why) {
  const auto facts = factsOf(file, why);
  if (!facts) return std::nullopt;
  return rowFor(file.string(), readTags(file), *facts, file.parent_path().native());
}

Result ingest(std::span<const fs::path> urls, OrvelDB& db, const Options& opt) {
  Expanded expanded = expandReporting(urls);
  const std::vector<fs::path>& files = expanded.files;
  Result result;
  result.failures = std::move(expanded.problems);
  result.failed = static_cast<int64_t>(result.failures.size());
  Batcher batch(db, result);
  const bool copying = opt.copyFiles && opt.mediaRoot.has_value();
  auto fail = [&](const fs::path& file, std::string why) {
    result.failures.push_back({file.string(), std::move(why)});
    result.failed = static_cast<int64_t>(result.failures.size());
  };
  // Folders of the media root whose leftovers of killed copies have been
  // cleared in this run.
  std::unordered_set<std::string> cleared;

  for (size_t i = 0; i < files.size(); ++i) {
    if ((opt.cancel && opt.cancel->load()) || !result.stopped.isOk()) {
      result.notReached += static_cast<int64_t>(files.size() - i);
      break;
    }
    const fs::path& file = files[i];
    if (opt.onProgress) opt.onProgress({i, files.size(), &result, file.native()});

    std::string why;
    const auto facts = factsOf(file, why);
    if (!facts) {
      fail(file, why);
      continue;
    }
    const bool copyThis = copying && !isInside(file, *opt.mediaRoot);
    // A file already in the library needs no tags read: its row is kept as it is.
    if (!copyThis && db.tracks().liveTrackId(file.native())) {
      ++result.dupes;
      continue;
    }
    const Tags tags = readTags(file);
    // A file whose header TagLib reads as audio is taken at its word; one it
    // finds no audio in (a text or a database renamed .mp3) is asked about
    // once more, more thoroughly and more slowly.
    if (opt.whyNotAudio && (!tags.durationMs || *tags.durationMs <= 0 || !tags.sampleRateHz)) {
      if (auto notAudio = opt.whyNotAudio(file)) {
        fail(file, *notAudio);
        continue;
      }
    }
    fs::path path = file;
    if (copyThis) {
      const fs::path folder = *opt.mediaRoot / folderName(tags.artist, "Unknown Artist") /
                              folderName(tags.album, "Unknown Album");
      std::error_code ec;
      fs::create_directories(folder, ec);
      if (ec) {
        fail(file, "cannot create the folder " + folder.string() + ": " + ec.message());
        continue;
      }
      if (cleared.insert(folder.native()).second) removeAbandonedPartials(folder, kCopyPrefix);
      const auto dest = copyDestination(file, folder);
      if (!dest) {
        fail(file, "no free name for it in " + folder.string());
        continue;
      }
      if (!dest->exists && !copyInto(file, dest->path, why)) {
        fail(file, why);
        continue;
      }
      path = dest->path;
      if (db.tracks().liveTrackId(path.native())) {
        ++result.dupes;
        continue;
      }
    }
    batch.add(rowFor(path.string(), tags, *facts, file.parent_path().native()));
    if (batch.due()) batch.flush();
  }
  if (result.stopped.isOk()) batch.flush();
  if (opt.onProgress)
    opt.onProgress(
        {files.size() - static_cast<size_t>(result.notReached), files.size(), &result, {}});
  return result;
}

}  // namespace orvel::Importer
