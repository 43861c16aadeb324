#pragma once

#include <cstddef>
#include <cstdint>

namespace tessard {

/// A parsed certificate name, borrowed from whoever parsed it. Plain structures, so that C can make them.
/// Pointers are null only where the count beside them is 0.
struct X509Bytes {
  std::size_t Length;
  const std::uint8_t* Data;
};

struct X509TypeValuePair {
  X509Bytes type;          ///< the content octets of the attribute's object identifier
  std::uint8_t valueType;  ///< the BER tag of the value
  X509Bytes value;
};

struct X509RelativeName {
  std::uint32_t numberOfPairs;
  const X509TypeValuePair* AttributeTypeAndValue;
};

struct X509Name {
  std::uint32_t numberOfRDNs;
  const X509RelativeName* RelativeDistinguishedName;
};

// Exported by the bundle under these names.
extern "C" {
/// The content octets of the object identifier 0.9.2342.19200300.100.1.1, the user ID attribute: a push
/// certificate holds its topic there.
extern const std::uint8_t oidData[10];

/// Whether the object identifier is that one. A null pointer is not.
bool isTopicOID(const X509Bytes* oid);
}

}  // namespace tessard
