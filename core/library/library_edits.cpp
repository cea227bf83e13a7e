#include "core/library/library_edits.h"

#include <fmt/format.h>

#include <algorithm>

#include "core/store/track_values.h"

namespace orvel::library {
namespace {

std::string stars(int n) {
  std::string out;
  for (int i = 0; i < 5; ++i) out += i < n ? "\u2605" : "\u2606";
  return out;
}

EditResult declined() {
  EditResult r;
  r.outcome = EditResult::Outcome::declined;
  return r;
}

EditResult nothing(std::string text) {
  EditResult r;
  r.outcome = EditResult::Outcome::nothing;
  r.toast = {"info.circle", std::move(text)};
  return r;
}

EditResult failure(const std::string& what, const Status& why) {
  EditResult r;
  r.outcome = EditResult::Outcome::failed;
  r.status = why;
  r.toast = {"exclamationmark.triangle.fill", what + " failed: " + describe(why)};
  return r;
}

}  // namespace

std::string tracksText(size_t n) {
  return fmt::format("{} {}", n, n == 1 ? "track" : "tracks");
}

Question bulkQuestion(std::string_view verb, size_t count) {
  Question q;
  q.question = fmt::format("{} {} tracks?", verb, count);
  q.explanation = fmt::format(
      "This changes {} tracks at once. It can be undone from the History panel.", count);
  q.confirm = fmt::format("{} {} Tracks", verb, count);
  return q;
}

bool LibraryEditor::confirmBulk(std::string_view verb, size_t count) {
  return count < kBulkThreshold || asker_.ask(bulkQuestion(verb, count));
}

EditResult LibraryEditor::finish(const Result<std::string>& op, Toast toast,
                                 const std::string& what) {
  EditResult r;
  if (!op) return failure(what, op.status());
  r.outcome = EditResult::Outcome::done;
  r.opId = *op;
  r.toast = std::move(toast);
  return r;
}

EditResult LibraryEditor::setRating(std::span<const int64_t> ids, int n) {
  if (ids.empty()) return nothing("No tracks to rate");
  if (!confirmBulk("Rate", ids.size())) return declined();
  const int clamped = std::clamp(n, 0, 5);
  Toast toast{"star.fill", clamped == 0 ? "Cleared the rating of " + tracksText(ids.size())
                                        : "Rated " + tracksText(ids.size()) + " " +
                                              stars(clamped)};
  return finish(db_.tracks().setRating(ids, clamped), std::move(toast), "Rating");
}

EditResult LibraryEditor::setMark(std::span<const int64_t> ids, bool on,
                                  const std::string& column) {
  const std::string count = tracksText(ids.size());
  Result<std::string> op = Status::invalid("unknown mark " + column);
  Toast toast;
  if (column == "loved") {
    if (!confirmBulk(on ? "Love" : "Unlove", ids.size())) return declined();
    op = db_.tracks().setLoved(ids, on);
    toast = on ? Toast{"heart.fill", "Loved " + count} : Toast{"heart", "Removed from Loved"};
  } else if (column == "disliked") {
    if (!confirmBulk(on ? "Dislike" : "Restore", ids.size())) return declined();
    op = db_.tracks().setDisliked(ids, on);
    toast = on ? Toast{"hand.thumbsdown.fill", "Disliked " + count + " \u00b7 hidden from every view"}
               : Toast{"hand.thumbsdown", "Back in the library"};
  } else if (column == "master") {
    if (!confirmBulk(on ? "Mark" : "Unmark", ids.size())) return declined();
    op = db_.tracks().setMaster(ids, on);
    toast = {"checkmark.seal.fill", on ? "Marked as master" : "Unmarked as master"};
  }
  return finish(op, std::move(toast), "Marking");
}

EditResult LibraryEditor::setLoved(std::span<const int64_t> ids, bool on) {
  if (ids.empty()) return nothing("No tracks to mark");
  return setMark(ids, on, "loved");
}

EditResult LibraryEditor::setDisliked(std::span<const int64_t> ids, bool on) {
  if (ids.empty()) return nothing("No tracks to mark");
  return setMark(ids, on, "disliked");
}

namespace {

// Whether every one of the tracks has the mark now.
bool allMarked(const TrackStore& tracks, const std::string& column,
               std::span<const int64_t> ids) {
  const auto values = tracks.fieldValues(column, ids);
  return !values.empty() && values.size() == ids.size() &&
         std::all_of(values.begin(), values.end(), [](const std::string& v) { return v == "1"; });
}

}  // namespace

EditResult LibraryEditor::toggleLoved(std::span<const int64_t> ids) {
  if (ids.empty()) return nothing("No tracks to mark");
  return setMark(ids, !allMarked(db_.tracks(), "loved", ids), "loved");
}

EditResult LibraryEditor::toggleDisliked(std::span<const int64_t> ids) {
  if (ids.empty()) return nothing("No tracks to mark");
  return setMark(ids, !allMarked(db_.tracks(), "disliked", ids), "disliked");
}

EditResult LibraryEditor::toggleMaster(std::span<const int64_t> ids) {
  if (ids.empty()) return nothing("No tracks to mark");
  return setMark(ids, !allMarked(db_.tracks(), "master", ids), "master");
}

EditResult LibraryEditor::setField(std::span<const int64_t> ids, const std::string& field,
                                   const std::string& label, const std::string& value) {
  if (ids.empty()) return nothing("No tracks to edit");
  const std::string column = TrackStore::columnFor(field);
  if (!db_.tracks().hasTrackColumn(column))
    return failure("Edit " + label, Status::invalid("unknown field '" + field + "'"));
  if (Status s = checkTrackValue(db_.connection(), column, field, value); !s)
    return failure("Edit " + label, s);
  if (!confirmBulk("Edit", ids.size())) return declined();
  const std::optional<std::string> stored =
      value.empty() ? std::nullopt : std::optional<std::string>(value);
  const std::string opName = "Edit " + label;
  Toast toast{"square.and.pencil",
              ids.size() == 1 ? (value.empty() ? opName + " cleared" : opName + " to " + value)
                              : opName + " on " + tracksText(ids.size())};
  return finish(db_.tracks().setField(column, stored, ids, opName), std::move(toast), opName);
}

EditResult LibraryEditor::commitInlineEdit(int64_t id, const std::string& field,
                                           const std::string& label, const std::string& value) {
  const int64_t one[] = {id};
  return setField(one, field, label, value);
}

EditResult LibraryEditor::removeTracks(std::span<const int64_t> ids) {
  if (ids.empty()) return nothing("No tracks to remove");
  if (!confirmBulk("Remove", ids.size())) return declined();
  return finish(db_.tracks().softRemove(ids),
                {"trash", "Removed " + tracksText(ids.size()) + " from the library"}, "Removing");
}

EditResult LibraryEditor::addToPlaylist(std::span<const int64_t> ids, int64_t playlistId) {
  if (ids.empty()) return nothing("No tracks to add");
  if (!confirmBulk("Add", ids.size())) return declined();
  return finish(db_.playlists().addToPlaylist(ids, playlistId),
                {"plus.circle.fill", "Added " + tracksText(ids.size())}, "Adding to the playlist");
}

EditResult LibraryEditor::removeFromPlaylist(std::span<const int64_t> ids, int64_t playlistId) {
  if (ids.empty()) return nothing("No tracks to remove");
  if (!confirmBulk("Remove", ids.size())) return declined();
  return finish(db_.playlists().removeFromPlaylist(ids, playlistId),
                {"minus.circle.fill", "Removed " + tracksText(ids.size()) + " from playlist"},
                "Removing from the playlist");
}

namespace {

std::string appliedText(const Journal::Applied& done) {
  std::string text = fmt::format("{} {}", done.applied, done.applied == 1 ? "change" : "changes");
  if (done.kept > 0)
    text += fmt::format(", kept {} newer {}", done.kept, done.kept == 1 ? "value" : "values");
  return text;
}

}  // namespace

EditResult LibraryEditor::undoLast() {
  const auto op = db_.journal().lastUndoable();
  if (!op) return nothing("Nothing to undo");
  Question q;
  q.question = "Undo \u201C" + op->opName + "\u201D?";
  q.explanation = "This puts back what \u201C" + op->opName + "\u201D changed.";
  q.confirm = "Undo";
  q.symbol = "exclamationmark.triangle.fill";
  if (!asker_.ask(q)) return declined();
  const auto done = db_.journal().undo(op->id);
  if (!done) return failure("Undo", done.status());
  EditResult r;
  r.outcome = EditResult::Outcome::done;
  r.opId = op->id;
  r.toast = {"arrow.uturn.backward", "Undid \u201C" + op->opName + "\u201D (" + appliedText(*done) + ")"};
  return r;
}

EditResult LibraryEditor::redoLast() {
  const auto op = db_.journal().lastRedoable();
  if (!op) return nothing("Nothing to redo");
  Question q;
  q.question = "Redo \u201C" + op->opName + "\u201D?";
  q.explanation = "This makes \u201C" + op->opName + "\u201D's changes again.";
  q.confirm = "Redo";
  q.symbol = "exclamationmark.triangle.fill";
  if (!asker_.ask(q)) return declined();
  const auto done = db_.journal().redo(op->id);
  if (!done) return failure("Redo", done.status());
  EditResult r;
  r.outcome = EditResult::Outcome::done;
  r.opId = op->id;
  r.toast = {"arrow.uturn.forward", "Redid \u201C" + op->opName + "\u201D (" + appliedText(*done) + ")"};
  return r;
}

}  // namespace orvel::library
