#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The names within a journal.

namespace tessard {

inline const std::string kOpenJournal = "open";
inline const std::string kKeptJournal = "kept";
inline const std::string kUndoneJournal = "undone";
inline const std::string kUndoableJournal = "undoable";
inline const std::string kLastJournal = "last";

inline const std::string kForeignSuffix = ".foreign";

inline const std::string kMarker = "marker";
inline constexpr const char* kPresent = "present";
inline constexpr const char* kAbsent = "absent";
inline constexpr const char* kAttributes = "attributes";
inline constexpr const char* kRemoved = "removed";
inline constexpr const char* kReplaced = "replaced";

/// The directories that stand for "/etc/x" below a kind: "+etc", "+x". The sign tells them from the files.
std::vector<std::string> mirrorNamesOf(std::string_view path);

/// The name that such a directory stands for.
std::string nameOfMirror(std::string_view mirrorName);

/// What a replacement makes beside a file: its temporary and its backup, where they can have names.
std::vector<std::string> namesBeside(std::string_view name);

/// The file that such a name is beside; empty for any other name.
std::string_view fileBeside(std::string_view name);

struct NotedAttributes {
  uid_t owner;
  gid_t group;
  mode_t permissions;
};

/// "84.0.600", and back; absent for anything else.
std::string attributesNameOf(uid_t owner, gid_t group, mode_t permissions);
std::optional<NotedAttributes> attributesIn(std::string_view name);

}  // namespace tessard
