#pragma once

#include <sys/types.h>

#include <map>

namespace tessard {

/// Which ids on disk stand for the ids that callers name. It exists for machines and users that cannot give
/// files away to the real ids: a scratch root of an ordinary user maps them all to that user's own.
///
/// Writing: an id that the map names is replaced by what it is mapped to; every other id goes to disk as it
/// is. Reading: an id that exactly one entry is mapped to is reported as that entry's key; every other id,
/// one that several entries share included, is reported as it is on disk. An empty map changes nothing.
struct OwnerMap {
  std::map<uid_t, uid_t> users;
  std::map<gid_t, gid_t> groups;
};

}  // namespace tessard
