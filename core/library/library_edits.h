// Editing the library the way every face of Orvel does it: ask first when an
// edit touches many tracks, write through the store (whose journal makes it
// undoable), and say what happened in a toast. The window's model and the
// command line both call these; what each shows of the question and the
// toast is theirs.
//
// Nothing is written when the question is answered no. Rows in memory are
// not touched here: the store's change feed tells whoever holds them.
//
// Thread contract: the store's (the thread that owns the OrvelDB).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/store/orvel_db.h"
#include "core/text/toast.h"

namespace orvel::library {

// From this many tracks on an edit asks first.
inline constexpr size_t kBulkThreshold = 31;

struct Question {
  std::string question;       // "Rate 40 tracks?"
  std::string explanation;    // "This changes 40 tracks at once. It can be undone …"
  std::string confirm;        // "Rate 40 Tracks"
  std::string cancel = "Cancel";
  std::string symbol;         // an icon for the dialog; "" for none
};

// The bulk question for `verb` ("Rate", "Add") and a count of tracks.
Question bulkQuestion(std::string_view verb, size_t count);

// Whoever asks the user: a dialog in the window, a prompt on a terminal.
class Asker {
 public:
  virtual ~Asker() = default;
  virtual bool ask(const Question& question) = 0;
};

// Answers every question yes (a script that said --yes, or a test).
class AlwaysYes : public Asker {
 public:
  bool ask(const Question&) override { return true; }
};

struct EditResult {
  enum class Outcome { done, declined, failed, nothing };
  Outcome outcome = Outcome::failed;
  Toast toast;
  std::string opId;  // the journal operation, for "undo OPID"
  Status status;     // why it failed
  bool done() const { return outcome == Outcome::done; }
};

class LibraryEditor {
 public:
  LibraryEditor(OrvelDB& db, Asker& asker) : db_(db), asker_(asker) {}

  // Stars clamped to 0…5, stored as stars × 20.
  EditResult setRating(std::span<const int64_t> ids, int stars);
  // As a group: when every track already has the mark it comes off all of
  // them, otherwise it goes on all of them.
  EditResult toggleLoved(std::span<const int64_t> ids);
  EditResult toggleDisliked(std::span<const int64_t> ids);
  EditResult toggleMaster(std::span<const int64_t> ids);
  // Explicitly on or off, as the command line asks for it.
  EditResult setLoved(std::span<const int64_t> ids, bool on);
  EditResult setDisliked(std::span<const int64_t> ids, bool on);
  // One field of one track as typed in the table; `label` names it in the
  // toast ("Genre"). An empty value clears the field.
  EditResult commitInlineEdit(int64_t id, const std::string& field, const std::string& label,
                              const std::string& value);
  // One field on many tracks (the inspector with several selected).
  EditResult setField(std::span<const int64_t> ids, const std::string& field,
                      const std::string& label, const std::string& value);
  EditResult removeTracks(std::span<const int64_t> ids);
  EditResult addToPlaylist(std::span<const int64_t> ids, int64_t playlistId);
  EditResult removeFromPlaylist(std::span<const int64_t> ids, int64_t playlistId);
  // The last operation still in force (or the last undone one), after the
  // user confirms; "Nothing to undo" when there is none.
  EditResult undoLast();
  EditResult redoLast();

 private:
  // Asks when `ids` is many; false when the answer is no.
  bool confirmBulk(std::string_view verb, size_t count);
  EditResult finish(const Result<std::string>& op, Toast toast, const std::string& what);
  EditResult setMark(std::span<const int64_t> ids, bool on, const std::string& column);

  OrvelDB& db_;
  Asker& asker_;
};

// "3 tracks", "1 track".
std::string tracksText(size_t n);

}  // namespace orvel::library
