#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "common/Result.h"
#include "common/XmlDocument.h"

namespace tessard {

/// The last document that was parsed of each kind of component, so that a file like it needs no parse and
/// little memory: the files of a thousand session managers are copies of one, and a file that is read again
/// has seldom changed. For the thread that serves the host's requests.
class KnownDocuments {
 public:
  /// What `XmlDocument::parse` gives. Documents are independent of each other, however much they share.
  Result<XmlDocument> parse(const std::string& kind, std::string bytes);

  /// How many documents had to be parsed so far.
  std::size_t parses() const { return parses_; }

 private:
  std::map<std::string, XmlDocument, std::less<>> known_;
  std::size_t parses_ = 0;
};

}  // namespace tessard
