#include "atoms/X509Name.h"

#include <cstring>

namespace tessard {

extern "C" {
const std::uint8_t oidData[10] = {0x09, 0x92, 0x26, 0x89, 0x93, 0xF2, 0x2C, 0x64, 0x01, 0x01};

bool isTopicOID(const X509Bytes* oid) {
  return oid && oid->Length == sizeof oidData && oid->Data &&
         std::memcmp(oid->Data, oidData, sizeof oidData) == 0;
}
}

}  // namespace tessard
