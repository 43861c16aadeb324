#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/FileSystem.h"

namespace tessard {

/// What is known of the last changes that can be undone, or what has become of undoing them.
struct LastChange {
  enum class State {
    undoable,      ///< or undone
    none,          ///< nothing was changed that can be undone
    changedSince,  ///< somebody has changed `files` since; nothing was undone
    failed,        ///< an error line tells why; nothing is undone once the changes under way are put back
  };
  State state = State::none;
  std::vector<std::string> files{};  ///< paths, sorted
};

/// The changes that the request under way makes to files, through the platform's `FileSystem`. They can be
/// put back until they are kept: at the end of the request, or earlier by whoever knows that a step stands
/// for itself. When the daemon dies before, its next start puts them back. What programs and accounts change
/// is not among them, nor are owner and permissions of directories.
class Changes {
 public:
  virtual ~Changes() = default;

  /// What was changed so far is on disk and stays, whatever becomes of the rest of the request. For requests
  /// that get nearer to their aim with every attempt. Nothing happens between `begin` and `end`.
  virtual void keep() = 0;

  /// From here to `end` the changes belong together: all of them or none. What was changed before is kept.
  virtual void begin() = 0;
  /// One of them could not be made. No effect but between `begin` and `end`.
  virtual void fail() = 0;
  /// True when all were made and are on disk. Otherwise every file is as it was at `begin`, which a log line
  /// tells; what objects hold in memory must then be read anew.
  virtual bool end() = 0;
  /// The same, and when something was changed it can be undone by `undoLast`, in place of what could be
  /// undone so far. A file that is as before is nothing changed. What was changed before is undoable until
  /// then.
  virtual bool endUndoably() = 0;

  /// The files that the last undoable changes concern.
  virtual LastChange lastChange() = 0;
  /// Between `begin` and `end`: puts every file back that the last undoable changes concern, with owner,
  /// permissions, times and the files beside it; what they made is removed, but for directories that hold
  /// something else. Ended with `endUndoably`, this can be undone in turn. What is not undone has failed.
  virtual LastChange undoLast() = 0;
  /// The files as they would be then, to be read alone; null when there is nothing to be undone.
  virtual std::unique_ptr<FileSystem> filesBeforeLast() = 0;

  /// Whether changes are being made that belong together, that is from `begin` to `end`.
  virtual bool underWay() const = 0;

  /// How often files were put back so far. What was read before the last time can be another version now.
  virtual std::size_t timesUndone() const = 0;

  /// Somebody else has changed this file meanwhile: it is left as it is when the rest is put back.
  virtual void leave(std::string_view path) = 0;
};

/// Changes that belong together, for the time of a block. Put back when the block is left without `end`.
class ChangeSet {
 public:
  /// `afterUndo` is called when the files were put back; it must not throw.
  explicit ChangeSet(
      Changes& changes, std::function<void()> afterUndo = [] {})
      : changes_(changes), afterUndo_(std::move(afterUndo)) {
    changes_.begin();
  }
  ChangeSet(const ChangeSet&) = delete;
  ChangeSet& operator=(const ChangeSet&) = delete;
  ~ChangeSet() {
    if (ended_) return;
    changes_.fail();
    end();
  }

  /// As `Changes::end`.
  bool end() { return hasEnded(changes_.end()); }
  /// As `Changes::endUndoably`.
  bool endUndoably() { return hasEnded(changes_.endUndoably()); }

 private:
  bool hasEnded(bool kept) {
    ended_ = true;
    if (!kept) afterUndo_();
    return kept;
  }

  Changes& changes_;
  const std::function<void()> afterUndo_;
  bool ended_ = false;
};

}  // namespace tessard
