#include "config/KnownDocuments.h"

#include <utility>

namespace tessard {

Result<XmlDocument> KnownDocuments::parse(const std::string& kind, std::string bytes) {
  if (const auto known = known_.find(kind); known != known_.end()) {
    if (auto like = known->second.parseLike(bytes)) return *std::move(like);
  }
  ++parses_;
  auto parsed = XmlDocument::parse(std::move(bytes));
  // Kept as it was read, whatever becomes of the one that is given out.
  if (parsed) known_.insert_or_assign(kind, parsed.value().copy());
  return parsed;
}

}  // namespace tessard
