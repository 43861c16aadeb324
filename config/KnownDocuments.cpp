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

void KnownDocuments::expectCopies(const FileCopies& copies) {
  copied_ = copies.content;
  copyVersion_ = versionOf(copied_);
  copyVersion_.isAnyOfContent = false;
  for (const auto& made : copies.made) {
    if (made) copies_.insert_or_assign(made.value().inode, made.value());
  }
}

void KnownDocuments::forgetCopies() {
  copies_.clear();
  copyDocument_.reset();
  copied_.clear();
}

std::optional<KnownDocuments::Copy> KnownDocuments::copyOf(const std::string& kind,
                                                           const FileAttributes& file) {
  const auto copy = copies_.find(file.inode);
  if (copy == copies_.end() || !isSameFile(versionOf(copy->second, copyVersion_), file)) return std::nullopt;
  const FileVersion version = versionOf(file, copyVersion_);
  if (copyDocument_) return Copy{copyDocument_->copy(), version};
  auto parsed = parse(kind, copied_);
  if (parsed) copyDocument_ = parsed.value().copy();
  return Copy{std::move(parsed), version};
}

}  // namespace tessard
