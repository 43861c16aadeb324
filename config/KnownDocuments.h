#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>

#include "common/DurableReplace.h"
#include "common/FileSystem.h"
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

  /// Between these two calls files that were just made with this content, and were not written to since as
  /// far as their attributes tell, need not be read.
  void expectCopies(const FileCopies& copies);
  void forgetCopies();
  struct Copy {
    Result<XmlDocument> document;
    FileVersion version;
  };
  /// What reading and parsing a file would give that is one of them; absent when it is none.
  std::optional<Copy> copyOf(const std::string& kind, const FileAttributes& file);

  /// How many documents had to be parsed so far.
  std::size_t parses() const { return parses_; }

 private:
  std::map<std::string, XmlDocument, std::less<>> known_;
  std::string copied_;                       // the content
  std::optional<XmlDocument> copyDocument_;  // of that, once it was parsed
  FileVersion copyVersion_;
  std::unordered_map<std::uint64_t, FileAttributes> copies_;  // by their inodes
  std::size_t parses_ = 0;
};

}  // namespace tessard
