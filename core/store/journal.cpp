#include "core/store/journal.h"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <span>

#include "core/text/path_norm.h"

namespace orvel {
namespace {

using nlohmann::json;

// Tables whose whole rows may be recorded and put back. A history row naming
// any other table is ignored, so a foreign or damaged row cannot write
// anywhere else.
const std::set<std::string, std::less<>> kRowTables = {
    "tracks",        "playlists",  "cues",           "beatgrids",     "smart_playlists", "sources",
    "track_options", "track_tags", "release_fields", "track_sources", "waveforms"};

bool validIdentifier(std::string_view s) {
  if (s.empty()) return false;
  return std::all_of(s.begin(), s.end(),
                     [](unsigned char c) { return std::isalnum(c) || c == '_'; });
}

std::string hexOf(std::span<const uint8_t> bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  for (uint8_t b : bytes) {
    hex += kHex[b >> 4];
    hex += kHex[b & 15];
  }
  return hex;
}

std::vector<uint8_t> bytesOf(const std::string& hex) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    uint8_t b = 0;
    const auto [end, ec] = std::from_chars(hex.data() + i, hex.data() + i + 2, b, 16);
    if (ec == std::errc() && end == hex.data() + i + 2) bytes.push_back(b);  // skip damage
  }
  return bytes;
}

json columnValue(const Statement& st, int col) {
  switch (sqlite3_column_type(st.get(), col)) {
    case SQLITE_INTEGER:
      return st.int64(col);
    case SQLITE_FLOAT:
      return st.real(col);
    case SQLITE_NULL:
      return nullptr;
    case SQLITE_BLOB:
      // Blobs travel as {"hex": "…"}; no journaled table keeps one today,
      // but a row with one must still come back whole.
      return json{{"hex", hexOf(st.blob(col))}};
    default: {
      // Text that is not UTF-8 (a crate name from an old Serato file) cannot
      // be JSON text; it travels as its bytes and comes back as the same text.
      const std::string_view text = st.textView(col);
      if (isValidUtf8(text)) return std::string(text);
      return json{{"textHex",
                   hexOf(std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()))}};
    }
  }
}

void bindJson(Statement& st, int index, const json& v) {
  if (v.is_null()) {
    st.bindNull(index);
  } else if (v.is_number_integer()) {
    st.bind(index, v.get<int64_t>());
  } else if (v.is_number()) {
    st.bind(index, v.get<double>());
  } else if (v.is_object() && v.contains("hex") && v["hex"].is_string()) {
    st.bindBlob(index, bytesOf(v["hex"].get<std::string>()));
  } else if (v.is_object() && v.contains("textHex") && v["textHex"].is_string()) {
    const auto bytes = bytesOf(v["textHex"].get<std::string>());
    st.bind(index, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  } else if (v.is_string()) {
    st.bind(index, v.get<std::string>());
  } else {
    st.bind(index, v.dump());
  }
}

uint32_t randomU32() {
  thread_local std::mt19937 gen{std::random_device{}()};
  return static_cast<uint32_t>(gen());
}

}  // namespace

std::string Journal::slug(std::string_view opName) {
  // Letters and digits of any script stay ("café" keeps its é); every other
  // character becomes a dash; runs of dashes collapse and none lead or trail.
  icu::UnicodeString name = icu::UnicodeString::fromUTF8(
      icu::StringPiece(opName.data(), static_cast<int32_t>(opName.size())));
  name.toLower(icu::Locale::getRoot());
  icu::UnicodeString out;
  int32_t kept = 0;
  bool pendingDash = false;
  for (int32_t i = 0; i < name.length() && kept < 24;) {
    const UChar32 c = name.char32At(i);
    i += U16_LENGTH(c);
    if (!u_isalnum(c)) {
      pendingDash = out.length() > 0;
      continue;
    }
    if (pendingDash) {
      out.append(u'-');
      pendingDash = false;
      if (++kept == 24) break;
    }
    out.append(c);
    ++kept;
  }
  std::string utf8;
  out.toUTF8String(utf8);
  return utf8;
}

std::string Journal::makeOpId(std::string_view opName, int64_t unixSeconds, uint32_t random) {
  return std::to_string(unixSeconds) + "-" + std::to_string(random) + "-" + slug(opName);
}

std::string Journal::begin(std::string_view opName) const {
  return makeOpId(opName, unixNow(), randomU32());
}

Status Journal::record(const std::string& opId, const std::string& opName,
                       const std::string& entity, int64_t entityId, const std::string& field,
                       const std::optional<std::string>& oldValue,
                       const std::optional<std::string>& newValue) const {
  Statement st = conn_.cached(
      "INSERT INTO history(op_id, op_name, entity, entity_id, field, old_value, new_value, at)\n"
      "VALUES(?,?,?,?,?,?,?,?)");
  st.bind(1, opId).bind(2, opName).bind(3, entity).bind(4, entityId).bind(5, field);
  st.bind(6, oldValue).bind(7, newValue).bind(8, unixNow());
  if (st.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  return Status::ok();
}

Status Journal::recordCurrent(const std::string& opId, const std::string& opName,
                              const std::string& table, std::span<const int64_t> ids,
                              const std::string& field,
                              const std::optional<std::string>& newValue) const {
  if (ids.empty()) return Status::ok();
  if (!validIdentifier(table) || !validIdentifier(field))
    return Status::invalid("no such field: " + table + "." + field);
  Transaction tx(conn_);
  if (!tx) return tx.status();
  Statement read = conn_.prepare("SELECT id, CAST(" + field + " AS TEXT) FROM " + table +
                                 " WHERE id IN (" + joinIds(ids) + ")");
  Statement ins = conn_.prepare(
      "INSERT INTO history(op_id, op_name, entity, entity_id, field, old_value, new_value, at)\n"
      "VALUES(?,?,?,?,?,?,?,?)");
  const int64_t now = unixNow();
  while (read.step()) {
    ins.reset();
    ins.bind(1, opId).bind(2, opName).bind(3, table).bind(4, read.int64(0)).bind(5, field);
    ins.bind(6, read.optText(1)).bind(7, newValue).bind(8, now);
    if (ins.stepCode() != SQLITE_DONE) return conn_.lastStatus();
  }
  return tx.commit();
}

std::optional<std::string> Journal::primaryKey(const std::string& table) const {
  Statement st = conn_.prepare("SELECT name FROM pragma_table_info(?) WHERE pk > 0");
  st.bind(1, table);
  if (!st.step()) return std::nullopt;
  std::string name = st.text(0);
  // A composite key (beatgrids, track_tags…) has no single row id: deleting
  // "by id" there would take every row of the track with it.
  if (st.step()) return std::nullopt;
  return name;
}

std::optional<std::string> Journal::rowJSON(const std::string& table, int64_t id) const {
  if (!kRowTables.contains(table)) return std::nullopt;
  const auto pk = primaryKey(table);
  if (!pk) return std::nullopt;
  Statement st = conn_.prepare("SELECT * FROM " + table + " WHERE " + *pk + " = ?");
  st.bind(1, id);
  if (!st.step()) return std::nullopt;
  json row = json::object();
  const int n = sqlite3_column_count(st.get());
  for (int c = 0; c < n; ++c) row[sqlite3_column_name(st.get(), c)] = columnValue(st, c);
  return row.dump();
}

std::string Journal::membersJSON(int64_t playlistId) const {
  json members = json::array();
  Statement st = conn_.prepare(
      "SELECT track_id FROM playlist_tracks WHERE playlist_id = ? ORDER BY position, rowid");
  st.bind(1, playlistId);
  while (st.step()) members.push_back(st.int64(0));
  return members.dump();
}

Status Journal::snapshotRow(const std::string& opId, const std::string& opName,
                            const std::string& table, int64_t id) const {
  return record(opId, opName, table, id, std::string(kRowField), rowJSON(table, id), std::nullopt);
}

Status Journal::snapshotPlaylist(const std::string& opId, const std::string& opName,
                                 int64_t playlistId) const {
  return record(opId, opName, "playlists", playlistId, std::string(kMembersField),
                membersJSON(playlistId), std::nullopt);
}

Status Journal::recordCreated(const std::string& opId, const std::string& opName,
                              const std::string& table, int64_t id) const {
  return record(opId, opName, table, id, std::string(kRowField), std::nullopt, rowJSON(table, id));
}

Status Journal::seal(const std::string& opId, int64_t afterEntry) const {
  std::vector<std::tuple<int64_t, std::string, int64_t, std::string>> pending;
  {
    // Entries made by recordCreated already carry their new value.
    Statement st = conn_.prepare(
        "SELECT id, entity, entity_id, field FROM history WHERE op_id = ? AND id > ? AND "
        "new_value IS NULL AND field IN ('@row', '@members')");
    st.bind(1, opId).bind(2, afterEntry);
    while (st.step()) pending.emplace_back(st.int64(0), st.text(1), st.int64(2), st.text(3));
  }
  Statement up = conn_.prepare("UPDATE history SET new_value = ? WHERE id = ?");
  for (const auto& [rowId, entity, entityId, field] : pending) {
    up.reset();
    if (field == kMembersField)
      up.bind(1, membersJSON(entityId));
    else
      up.bind(1, rowJSON(entity, entityId));
    if (up.bind(2, rowId).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  }
  return Status::ok();
}

bool Journal::restoreRow(const std::string& table, int64_t id,
                         const std::optional<std::string>& value) const {
  if (!kRowTables.contains(table)) return false;
  json parsed = value ? json::parse(*value, nullptr, false) : json();
  if (value && parsed.is_discarded()) return false;

  if (parsed.is_array()) {
    // A member list; only playlists have one.
    if (table != "playlists") return false;
    if (conn_.execChecked("DELETE FROM playlist_tracks WHERE playlist_id = " + std::to_string(id)))
      return false;
    Statement ins = conn_.prepare(
        "INSERT OR IGNORE INTO playlist_tracks(playlist_id, track_id, position) VALUES(?,?,?)");
    int64_t position = 0;
    for (const auto& member : parsed) {
      if (!member.is_number_integer()) continue;
      ins.reset();
      ins.bind(1, id).bind(2, member.get<int64_t>()).bind(3, position++).stepCode();
    }
    return true;
  }

  const auto pk = primaryKey(table);
  if (!pk) return false;
  if (!parsed.is_object()) {
    // No recorded row: the row did not exist at that moment.
    Statement del = conn_.prepare("DELETE FROM " + table + " WHERE " + *pk + " = ?");
    del.bind(1, id);
    return del.stepCode() == SQLITE_DONE;
  }

  if (table == "cues") keepSlotFree(parsed, id);

  std::set<std::string, std::less<>> columns;
  {
    Statement st = conn_.prepare("SELECT name FROM pragma_table_info(?)");
    st.bind(1, table);
    while (st.step()) columns.insert(st.text(0));
  }
  std::string names;
  std::string marks;
  std::vector<const json*> values;
  for (const auto& [name, v] : parsed.items()) {
    if (!columns.contains(name) || name == *pk) continue;
    names += "," + name;
    marks += ",?";
    values.push_back(&v);
  }
  Statement ins = conn_.prepare("INSERT OR REPLACE INTO " + table + "(" + *pk + names +
                                ") VALUES(?" + marks + ")");
  ins.bind(1, id);
  for (size_t i = 0; i < values.size(); ++i) bindJson(ins, static_cast<int>(i + 2), *values[i]);
  return ins.stepCode() == SQLITE_DONE;
}

void Journal::keepSlotFree(json& cue, int64_t id) const {
  // A cue put back by undo may find its hot-cue slot taken by one made since;
  // it moves to the lowest free slot rather than sharing one. With all eight
  // taken it keeps its own, so it is never lost.
  const auto field = [&](const char* key) { return cue.contains(key) ? cue[key] : json(); };
  if (!field("idx").is_number_integer() || !field("track_id").is_number_integer() ||
      !field("kind").is_string() || !field("source_id").is_null())
    return;
  const int64_t slot = field("idx").get<int64_t>();
  if (slot < 0 || slot >= 8) return;
  std::set<int64_t> used;
  Statement st =
      conn_.prepare("SELECT idx FROM cues WHERE track_id = ? AND kind = ? AND id <> ? AND idx < 8");
  st.bind(1, field("track_id").get<int64_t>())
      .bind(2, field("kind").get<std::string>())
      .bind(3, id);
  while (st.step()) used.insert(st.int64(0));
  if (!used.contains(slot)) return;
  for (int64_t free = 0; free < 8; ++free) {
    if (used.contains(free)) continue;
    cue["idx"] = free;
    return;
  }
}

bool Journal::wouldLoop(int64_t node, const std::optional<std::string>& parent) const {
  // Undoing moves out of order could otherwise hang a node under itself.
  if (!parent) return false;
  int64_t at = 0;
  const auto [end, ec] = std::from_chars(parent->data(), parent->data() + parent->size(), at);
  if (ec != std::errc()) return false;
  std::set<int64_t> seen;
  Statement up = conn_.prepare("SELECT parent_id FROM playlists WHERE id = ?");
  while (seen.insert(at).second) {
    if (at == node) return true;
    up.reset();
    up.bind(1, at);
    if (!up.step() || up.isNull(0)) return false;
    at = up.int64(0);
  }
  return true;  // already a loop above
}

std::vector<Journal::Operation> Journal::operations(int limit) const {
  std::vector<Operation> out;
  Statement st = conn_.prepare(
      "SELECT op_id, op_name, COUNT(*), MAX(at), MIN(undone)\n"
      "FROM history GROUP BY op_id ORDER BY MAX(at) DESC, op_id DESC LIMIT ?");
  st.bind(1, static_cast<int64_t>(limit));
  while (st.step())
    out.push_back({st.text(0), st.text(1), st.int64(2), st.int64(3), st.int64(4) != 0});
  return out;
}

std::vector<Journal::Entry> Journal::entries(const std::string& opId) const {
  std::vector<Entry> out;
  Statement st = conn_.prepare(
      "SELECT op_id, op_name, entity, entity_id, field, old_value, new_value, at, undone "
      "FROM history WHERE op_id = ? ORDER BY id");
  st.bind(1, opId);
  while (st.step())
    out.push_back({st.text(0), st.text(1), st.text(2), st.int64(3), st.text(4), st.optText(5),
                   st.optText(6), st.int64(7), st.int64(8) != 0});
  return out;
}

Result<Journal::Applied> Journal::undo(const std::string& opId) const {
  return apply(opId, true);
}
Result<Journal::Applied> Journal::redo(const std::string& opId) const {
  return apply(opId, false);
}

bool Journal::overtaken(int64_t entryId, const std::string& opId, const std::string& entity,
                        int64_t entityId, const std::string& field) const {
  // A whole-row image and any field of that row overtake each other; a member
  // list stands apart from the playlist's own row.
  Statement st = conn_.cached(
      "SELECT 1 FROM history WHERE entity = ?1 AND entity_id = ?2 AND id > ?3 AND op_id <> ?4 "
      "AND undone = 0 AND (field = ?5 OR (?5 = '@row' AND field <> '@members') OR "
      "(field = '@row' AND ?5 <> '@members')) LIMIT 1");
  st.bind(1, entity).bind(2, entityId).bind(3, entryId).bind(4, opId).bind(5, field);
  return st.step();
}

std::optional<std::string> Journal::valueBefore(int64_t entryId, const std::string& opId,
                                                const std::string& entity, int64_t entityId,
                                                const std::string& field,
                                                std::optional<std::string> oldValue) const {
  // The old value an entry recorded may itself have come from an earlier
  // operation that has been undone since (set A, set B, undo the first, undo
  // the second): then the field goes back to what was there before that one,
  // and so on down the chain. A value that does not match the earlier
  // entry's new value was written by something else in between (an analysis
  // filling an empty tempo) and is the one to restore.
  Statement earlier = conn_.cached(
      "SELECT id, old_value, new_value, undone FROM history WHERE entity = ? AND entity_id = ? "
      "AND field = ? AND id < ? AND op_id <> ? ORDER BY id DESC LIMIT 1");
  int64_t at = entryId;
  for (int depth = 0; depth < 10000; ++depth) {
    earlier.reset();
    earlier.bind(1, entity).bind(2, entityId).bind(3, field).bind(4, at).bind(5, opId);
    if (!earlier.step()) break;
    if (earlier.int64(3) == 0 || earlier.optText(2) != oldValue) break;
    at = earlier.int64(0);
    oldValue = earlier.optText(1);
  }
  return oldValue;
}

Result<Journal::Applied> Journal::apply(const std::string& opId, bool undoing) const {
  struct Pending {
    int64_t entryId;
    std::string entity;
    int64_t entityId;
    std::string field;
    std::optional<std::string> value;
  };
  std::vector<Pending> pending;
  {
    // Undo walks newest first, redo oldest first, so that rows come back
    // before the entries that refer to them.
    Statement st =
        conn_.prepare(undoing ? "SELECT id, entity, entity_id, field, old_value FROM history\n"
                                "WHERE op_id = ? AND undone = 0 ORDER BY id DESC"
                              : "SELECT id, entity, entity_id, field, new_value FROM history\n"
                                "WHERE op_id = ? AND undone = 1 ORDER BY id ASC");
    st.bind(1, opId);
    while (st.step())
      pending.push_back({st.int64(0), st.text(1), st.int64(2), st.text(3), st.optText(4)});
  }
  Applied result;
  if (pending.empty()) return result;

  Transaction tx(conn_);
  if (!tx) return tx.status();
  for (const auto& e : pending) {
    // A later operation still in force changed the same value: going back
    // (or forward) over it would silently throw that newer edit away.
    if (overtaken(e.entryId, opId, e.entity, e.entityId, e.field)) {
      ++result.kept;
      continue;
    }
    if (e.field == kRowField || e.field == kMembersField) {
      if (restoreRow(e.entity, e.entityId, e.value)) ++result.applied;
      continue;
    }
    if (!isWritable(e.entity, e.field)) continue;
    const auto value =
        undoing ? valueBefore(e.entryId, opId, e.entity, e.entityId, e.field, e.value) : e.value;
    if (e.entity == "playlists" && e.field == "parent_id" && wouldLoop(e.entityId, value)) continue;
    Statement up = conn_.prepare("UPDATE " + e.entity + " SET " + e.field + " = ? WHERE id = ?");
    up.bind(1, value).bind(2, e.entityId);
    if (up.stepCode() == SQLITE_DONE) ++result.applied;
  }
  Statement mark = conn_.prepare(undoing ? "UPDATE history SET undone = 1 WHERE op_id = ?"
                                         : "UPDATE history SET undone = 0 WHERE op_id = ?");
  if (mark.bind(1, opId).stepCode() != SQLITE_DONE) return conn_.lastStatus();
  if (Status kept = tx.commit(); !kept) return kept;
  return result;
}

// The listing orders operations of the same second by op id, which carries a
// random number; Undo and Redo need the order in which they really happened,
// which the history row ids keep. Only ties need the extra look-up.
std::vector<Journal::Operation> Journal::inRecordedOrder(std::vector<Operation> ops) const {
  Statement newest = conn_.prepare("SELECT MAX(id) FROM history WHERE op_id = ?");
  std::vector<int64_t> lastEntry(ops.size(), 0);
  for (size_t i = 0; i < ops.size(); ++i) {
    const bool tied =
        (i > 0 && ops[i - 1].at == ops[i].at) || (i + 1 < ops.size() && ops[i + 1].at == ops[i].at);
    if (!tied) continue;
    newest.reset();
    newest.bind(1, ops[i].id);
    if (newest.step()) lastEntry[i] = newest.int64(0);
  }
  std::vector<size_t> order(ops.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return ops[a].at != ops[b].at ? ops[a].at > ops[b].at : lastEntry[a] > lastEntry[b];
  });
  std::vector<Operation> sorted;
  sorted.reserve(ops.size());
  for (size_t i : order) sorted.push_back(std::move(ops[i]));
  return sorted;
}

std::optional<Journal::Operation> Journal::lastUndoable() const {
  for (auto& op : inRecordedOrder(operations(200)))
    if (!op.undone) return op;
  return std::nullopt;
}

std::optional<Journal::Operation> Journal::lastRedoable() const {
  // Redo follows the undo stack: of the undone operations newer than every
  // operation still in force, the oldest is the one undone last. A fresh edit
  // after an undo closes that stack, as in any editor.
  std::optional<Operation> candidate;
  for (auto& op : inRecordedOrder(operations(200))) {
    if (!op.undone) break;
    candidate = op;
  }
  return candidate;
}

const std::vector<std::string>& Journal::writable(std::string_view entity) {
  static const std::vector<std::string> kNone;
  // The first 26 are the historical list; catalog_no … discogs_id have no
  // column in `tracks`, so their writes fail harmlessly. The rest are the
  // other fields a user can edit, so that each such edit can be undone.
  static const std::vector<std::string> kTracks = {
      "removed", "rating", "play_count", "genre", "artist", "album", "title", "comment", "grouping",
      "label", "year", "bpm", "key", "energy", "catalog_no", "barcode", "country", "release_format",
      "discogs_id", "volume_adjust", "production", "date_added", "path", "file_missing", "flags",
      "master",
      // user-editable beyond the historical list
      "loved", "disliked", "album_artist", "composer", "track_number", "disc_number", "track_count",
      "disc_count", "album_rating", "compilation", "work", "movement_name", "movement_number",
      "sort_title", "sort_artist", "sort_album", "sort_album_artist", "sort_composer", "isrc",
      "serato_label", "studio_status", "studio_note", "equalizer", "description", "category",
      "release_date", "lyrics",
      // the file facts a relink moves from the row its file was found under
      "filename", "filesize_bytes", "file_type", "bitrate_kbps", "samplerate_hz", "date_created",
      // not the user's, but the Apple Music migration records a track's
      // persistent id as it matches it, and its undo must take that back too
      "music_pid"};
  static const std::vector<std::string> kPlaylists = {"name", "parent_id", "color", "sort_order",
                                                      "kind"};
  static const std::vector<std::string> kCues = {"position_ms", "length_ms", "color", "name",
                                                 "idx",         "bank",      "kind"};
  if (entity == "tracks") return kTracks;
  if (entity == "playlists") return kPlaylists;
  if (entity == "cues") return kCues;
  return kNone;
}

bool Journal::isWritable(std::string_view entity, std::string_view field) {
  const auto& list = writable(entity);
  return std::find(list.begin(), list.end(), field) != list.end();
}

}  // namespace orvel
