// The edit history. Every user edit is written to `history` as one row per
// changed field, grouped under an operation id, so any operation can be undone
// or redone by id, also after a restart. Whole rows ("@row", a JSON object of
// column to value) and playlist member lists ("@members", a JSON array of track
// ids) are recorded the same way, so deletions and creations can be reversed.
//
// Shares the store's connection and its thread. Failures never throw: every
// write returns a Status, and an edit whose history cannot be written must
// roll back with it (callers record inside their own Transaction).
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/store/connection.h"

namespace orvel {

class Journal {
 public:
  struct Entry {
    std::string opId;
    std::string opName;
    std::string entity;
    int64_t entityId = 0;
    std::string field;
    std::optional<std::string> oldValue;
    std::optional<std::string> newValue;
    int64_t at = 0;
    bool undone = false;
  };

  struct Operation {
    std::string id;
    std::string opName;
    int64_t entries = 0;
    int64_t at = 0;  // the newest entry's time
    bool undone = false;
  };

  static constexpr std::string_view kRowField = "@row";
  static constexpr std::string_view kMembersField = "@members";

  explicit Journal(const Connection& conn) : conn_(conn) {}

  // A new op id: "<unix seconds>-<random u32>-<slug of the name>".
  std::string begin(std::string_view opName) const;
  static std::string slug(std::string_view opName);
  static std::string makeOpId(std::string_view opName, int64_t unixSeconds, uint32_t random);

  Status record(const std::string& opId, const std::string& opName, const std::string& entity,
                int64_t entityId, const std::string& field,
                const std::optional<std::string>& oldValue,
                const std::optional<std::string>& newValue) const;

  // Records the current value of `field` (as text) for each id as the old
  // value and `newValue` as the new one. Call before writing.
  Status recordCurrent(const std::string& opId, const std::string& opName, const std::string& table,
                       std::span<const int64_t> ids, const std::string& field,
                       const std::optional<std::string>& newValue) const;

  // The whole row as it stands now (NULL when it does not exist) as the old
  // value of an "@row" entry. After the edit, `seal` stores the new image.
  Status snapshotRow(const std::string& opId, const std::string& opName, const std::string& table,
                     int64_t id) const;
  // The ordered member list of a playlist as the old value of "@members".
  Status snapshotPlaylist(const std::string& opId, const std::string& opName,
                          int64_t playlistId) const;
  // A row the operation has just created: old value NULL, new value the row,
  // so undo deletes it and redo puts it back.
  Status recordCreated(const std::string& opId, const std::string& opName, const std::string& table,
                       int64_t id) const;
  // Fills in the new value of the operation's "@row"/"@members" entries from
  // the rows as they stand after the edit (NULL for a row that is now gone);
  // only entries after history row `afterEntry`, for an operation that grows
  // over many transactions.
  Status seal(const std::string& opId, int64_t afterEntry = 0) const;

  // Puts a recorded value back: a JSON object is a row (INSERT OR REPLACE), a
  // JSON array a member list, and no value deletes the row.
  bool restoreRow(const std::string& table, int64_t id,
                  const std::optional<std::string>& value) const;

  std::vector<Operation> operations(int limit) const;
  std::vector<Entry> entries(const std::string& opId) const;
  // What undo or redo did: entries written, and entries left as they are
  // because a later operation still in force changed the same value.
  struct Applied {
    int applied = 0;
    int kept = 0;
  };
  // Each applies the operation's entries in one transaction; an op with
  // nothing left to undo (or redo) applies none. A value that a later
  // operation in force has changed since is kept, not overwritten, and
  // counted in `kept`. A failed commit is an error, never a count.
  Result<Applied> undo(const std::string& opId) const;
  Result<Applied> redo(const std::string& opId) const;
  // The same operations in the order they were recorded: the listing orders
  // operations of one second by op id, which holds a random number.
  std::vector<Operation> inRecordedOrder(std::vector<Operation> ops) const;
  std::optional<Operation> lastUndoable() const;
  std::optional<Operation> lastRedoable() const;

  // The fields that undo and redo may write, per entity; others are skipped.
  static const std::vector<std::string>& writable(std::string_view entity);
  static bool isWritable(std::string_view entity, std::string_view field);

  // The current row as a JSON object, or none when there is no such row.
  std::optional<std::string> rowJSON(const std::string& table, int64_t id) const;
  std::string membersJSON(int64_t playlistId) const;

 private:
  Result<Applied> apply(const std::string& opId, bool undoing) const;
  // Whether a later operation still in force has written the same value
  // (the same field, or the whole row) since history entry `entryId`.
  bool overtaken(int64_t entryId, const std::string& opId, const std::string& entity,
                 int64_t entityId, const std::string& field) const;
  // The value a field goes back to when entry `entryId` is undone.
  std::optional<std::string> valueBefore(int64_t entryId, const std::string& opId,
                                         const std::string& entity, int64_t entityId,
                                         const std::string& field,
                                         std::optional<std::string> oldValue) const;
  void keepSlotFree(nlohmann::json& cue, int64_t id) const;
  bool wouldLoop(int64_t node, const std::optional<std::string>& parent) const;
  std::optional<std::string> primaryKey(const std::string& table) const;

  const Connection& conn_;
};

}  // namespace orvel
