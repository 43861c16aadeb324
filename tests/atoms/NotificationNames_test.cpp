#include <cstdint>
#include <string>
#include <vector>

#include "atoms/X509Name.h"
#include "tests/atoms/NotificationFixtures.h"

namespace tessard {
namespace {

using namespace std::string_literals;

const std::string kTopicType(reinterpret_cast<const char*>(oidData), sizeof oidData);
const std::string kCommonNameType = "\x55\x04\x03";

X509Bytes borrowed(const std::string& bytes) {
  return {bytes.size(), reinterpret_cast<const std::uint8_t*>(bytes.data())};
}

struct Pair {
  std::string type;
  std::uint8_t tag;
  std::string value;
};

class TopicInAName : public NotificationTest {
 protected:
  // Each part of the name is a list of pairs.
  std::optional<std::string> topicIn(const std::vector<std::vector<Pair>>& parts) {
    std::vector<std::vector<X509TypeValuePair>> pairs;
    std::vector<X509RelativeName> names;
    for (const auto& part : parts) {
      auto& list = pairs.emplace_back();
      for (const Pair& pair : part) list.push_back({borrowed(pair.type), pair.tag, borrowed(pair.value)});
    }
    names.reserve(pairs.size());
    for (const auto& list : pairs) names.push_back({static_cast<std::uint32_t>(list.size()), list.data()});
    testing::internal::CaptureStderr();
    auto topic = atom->otherNameForX509Name({static_cast<std::uint32_t>(names.size()), names.data()});
    warnings = testing::internal::GetCapturedStderr();
    return topic;
  }

  std::string warnings;
};

TEST_F(TopicInAName, ANameWithoutPartsHasNone) {
  EXPECT_EQ(atom->otherNameForX509Name({0, nullptr}), std::nullopt);
  EXPECT_EQ(topicIn({{}}), std::nullopt);
  EXPECT_EQ(warnings, "");
}

TEST_F(TopicInAName, EveryStringTypeIsDecodedAsItsTagSays) {
  EXPECT_EQ(topicIn({{{kTopicType, 12, "grün"}}}), "grün");
  for (const std::uint8_t ascii : {19, 22, 26}) {
    EXPECT_EQ(topicIn({{{kTopicType, ascii, "com.example.topic"}}}), "com.example.topic") << int(ascii);
  }
  EXPECT_EQ(topicIn({{{kTopicType, 20, "gr\xFCn"}}}), "grün");
  EXPECT_EQ(topicIn({{{kTopicType, 28, "\0\0\0g\0\1\xF6\0"s}}}), "g\U0001F600");
  EXPECT_EQ(topicIn({{{kTopicType, 30, "\0g\0\xFC"s}}}), "gü");
  EXPECT_EQ(warnings, "");
}

TEST_F(TopicInAName, OtherAttributesAreSkippedWithoutAWord) {
  EXPECT_EQ(topicIn({{{kCommonNameType, 12, "somebody"}, {kTopicType, 12, "topic"}}}), "topic");
  EXPECT_EQ(topicIn({{{kCommonNameType, 99, "\xFF"}}}), std::nullopt);
  EXPECT_EQ(warnings, "");
}

TEST_F(TopicInAName, AValueOfAnUnknownTypeIsToldAndPassedOver) {
  EXPECT_EQ(topicIn({{{kTopicType, 4, "ab\xFF"}, {kTopicType, 12, "next of the same part"}}}),
            "next of the same part");
  EXPECT_EQ(warnings,
            "Warning: Unrecognized relative distinguished name type or value type found in certificate:\n"
            "   OID type=<09922689 93f22c64 0101>  Value type=4  value=<6162ff>\n");
}

TEST_F(TopicInAName, AValueThatIsNoTextOfItsTypeIsToldAndPassedOver) {
  EXPECT_EQ(topicIn({{{kTopicType, 19, "\xFC"}}}), std::nullopt) << "no ASCII";
  EXPECT_NE(warnings.find("Value type=19  value=<fc>"), std::string::npos) << warnings;
  EXPECT_EQ(topicIn({{{kTopicType, 30, "\xD8\0"s}}, {{kTopicType, 12, "of the next part"}}}),
            "of the next part");
  EXPECT_NE(warnings.find("Value type=30  value=<d800>"), std::string::npos) << warnings;
}

TEST_F(TopicInAName, TheFirstOfAPartAndTheLastOfThePartsIsTheAnswer) {
  EXPECT_EQ(topicIn({{{kTopicType, 12, "first"}, {kTopicType, 12, "never looked at"}}}), "first");
  EXPECT_EQ(topicIn({{{kTopicType, 12, "first"}}, {{kTopicType, 12, "second"}}}), "second");
}

TEST_F(TopicInAName, ALaterPartWithoutATopicClearsNothing) {
  EXPECT_EQ(
      topicIn({{{kTopicType, 12, "kept"}}, {{kTopicType, 12, "\xFF"}}, {{kCommonNameType, 12, "x"}}, {}}),
      "kept");
}

TEST_F(TopicInAName, ANulIsACharacterOfTheTopicAndAnEmptyTopicIsOne) {
  EXPECT_EQ(topicIn({{{kTopicType, 12, "a\0b"s}}}), "a\0b"s);
  EXPECT_EQ(topicIn({{{kTopicType, 12, ""}}}), "");
}

TEST(TopicOID, IsTheUserIdAttributeAndNothingElse) {
  const std::string octets = "\x09\x92\x26\x89\x93\xF2\x2C\x64\x01\x01"s;
  EXPECT_EQ(kTopicType, octets);
  const X509Bytes topic = borrowed(octets);
  EXPECT_TRUE(isTopicOID(&topic));
  const std::string otherOctets = "\x09\x92\x26\x89\x93\xF2\x2C\x64\x01\x19"s;
  const X509Bytes other = borrowed(otherOctets);
  EXPECT_FALSE(isTopicOID(&other)) << "domain component";
}

TEST(TopicOID, HasTenOctetsNeitherMoreNorFewer) {
  const std::string longer = kTopicType + '\x01';
  const X509Bytes eleven = borrowed(longer);
  EXPECT_FALSE(isTopicOID(&eleven));
  const X509Bytes nine{9, oidData};
  EXPECT_FALSE(isTopicOID(&nine));
  const X509Bytes none{0, nullptr};
  EXPECT_FALSE(isTopicOID(&none));
  EXPECT_FALSE(isTopicOID(nullptr));
}

}  // namespace
}  // namespace tessard
