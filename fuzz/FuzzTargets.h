#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace tessard {

/// A promise of the code under test that did not hold for an input.
class BrokenPromise : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws `BrokenPromise`, with the sentence that was promised, when it was not kept.
inline void promise(bool kept, const std::string& sentence) {
  if (!kept) throw BrokenPromise(sentence);
}

// The ways in for hostile bytes. Each takes one input, in the form that its source tells, and throws
// `BrokenPromise` when one of the promises in that source does not hold. Used on one thread.
namespace fuzz {
void certificates(std::string_view input);
void host_filter(std::string_view input);
void master_file(std::string_view input);
void path_lookup(std::string_view input);
void property_lists(std::string_view input);
void requests(std::string_view input);
void xml_edits(std::string_view input);
}  // namespace fuzz

}  // namespace tessard
