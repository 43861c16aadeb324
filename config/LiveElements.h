#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/XmlDocument.h"

namespace tessard {

/// The elements at a dotted path below an element ("local.id"), in document order, as jabberd's components
/// find them: every parent of a name counts, and what is switched off does not.
std::vector<XmlNode> liveElementsAt(const XmlNode& base, std::string_view path);

/// The texts of these elements.
std::vector<std::string> liveTextsAt(const XmlNode& base, std::string_view path);

/// The text of the first of them; empty when there is none.
std::string liveTextAt(const XmlNode& base, std::string_view path);

}  // namespace tessard
