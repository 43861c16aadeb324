#include <gmock/gmock.h>

#include <string>

#include "host/Base64.h"
#include "host/MediaType.h"
#include "host/Rfc3339.h"

namespace tessard {
namespace {

TEST(Base64, EncodesEveryLengthWithPadding) {
  EXPECT_EQ(encodeBase64(""), "");
  EXPECT_EQ(encodeBase64("f"), "Zg==");
  EXPECT_EQ(encodeBase64("fo"), "Zm8=");
  EXPECT_EQ(encodeBase64("foo"), "Zm9v");
  EXPECT_EQ(encodeBase64("foob"), "Zm9vYg==");
  EXPECT_EQ(encodeBase64("\xfb\xff"), "+/8=");
}

TEST(Base64, GivesEveryByteBack) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
    EXPECT_EQ(decodeBase64(encodeBase64(bytes)), bytes);
  }
}

TEST(Base64, RefusesEverythingElse) {
  for (const char* text :
       {"Z", "Zg", "Zg=", "Z===", "====", "Zg==Zg==", "Zm9v\n", " Zm9v", "Zm-_", "Zh==", "Zm9="}) {
    EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
  }
}

TEST(Rfc3339, WritesAMomentInUtc) {
  EXPECT_EQ(formatRfc3339(Date{0}), "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatRfc3339(Date{1795226427000000}), "2026-11-21T02:00:27Z");
  EXPECT_EQ(formatRfc3339(Date{1500000}), "1970-01-01T00:00:01.500000Z");
  EXPECT_EQ(formatRfc3339(Date{-1}), "1969-12-31T23:59:59.999999Z");
}

TEST(Rfc3339, ReadsZonesAndFractions) {
  EXPECT_EQ(parseRfc3339("2026-11-21T02:00:27Z"), Date{1795226427000000});
  EXPECT_EQ(parseRfc3339("2026-11-21t03:30:27+01:30"), Date{1795226427000000});
  EXPECT_EQ(parseRfc3339("2026-11-20T21:00:27-05:00"), Date{1795226427000000});
  EXPECT_EQ(parseRfc3339("1970-01-01T00:00:00.25z"), Date{250000});
  EXPECT_EQ(parseRfc3339("1970-01-01T00:00:00.1234567899Z"), Date{123456});
  EXPECT_EQ(parseRfc3339("2024-02-29T00:00:00Z"), Date{1709164800000000});
}

TEST(Rfc3339, RefusesEverythingElse) {
  for (const char* text :
       {"", "2026-11-21", "2026-11-21T02:00:27", "2026-11-21 02:00:27Z", "2026-13-01T00:00:00Z",
        "2026-00-01T00:00:00Z", "2026-02-29T00:00:00Z", "2026-11-31T00:00:00Z", "2026-11-21T24:00:00Z",
        "2026-11-21T00:60:00Z", "2026-11-21T00:00:60Z", "2026-11-21T00:00:00.Z", "2026-11-21T00:00:00+24:00",
        "2026-11-21T00:00:00+0100", "2026-11-21T00:00:00Zx", "x2026-11-21T00:00:00Z", "26-11-21T00:00:00Z"}) {
    EXPECT_EQ(parseRfc3339(text), std::nullopt) << text;
  }
}

std::string answerType(const char* accept, const char* sent) {
  return MediaType::forAnswer(accept, *MediaType::fromContentType(sent)).name();
}

TEST(MediaType, KnowsItsNamesInEveryCaseAndWithParameters) {
  for (const char* header : {"application/json", "Application/JSON", "application/json; charset=utf-8",
                             " application/json ;charset=\"UTF-8\"", "application/json;x=y"}) {
    ASSERT_TRUE(MediaType::fromContentType(header)) << header;
    EXPECT_TRUE(MediaType::fromContentType(header)->isJson());
  }
  for (const char* header : {"text/xml", "application/xml", "application/x-plist"}) {
    EXPECT_FALSE(MediaType::fromContentType(header)->isJson());
  }
}

TEST(MediaType, DoesNotKnowOthers) {
  for (const char* header : {"", "json", "application/jsonx", "text/plain",
                             "application/json; charset=latin1", "application/*", ";"}) {
    EXPECT_EQ(MediaType::fromContentType(header), std::nullopt) << header;
  }
}

TEST(MediaType, AnswersAsSentWithoutAWish) {
  const MediaType sent = *MediaType::fromContentType("text/xml");
  EXPECT_EQ(MediaType::forAnswer(std::nullopt, sent), sent);
}

TEST(MediaType, AnswersWithWhatIsLikedBest) {
  EXPECT_EQ(answerType("application/json", "text/xml"), "application/json");
  EXPECT_EQ(answerType("text/xml;q=0.2, application/json;q=0.8", "text/xml"), "application/json");
  EXPECT_EQ(answerType("application/json, text/xml", "text/xml"), "text/xml");
  EXPECT_EQ(answerType("application/xml, application/json", "text/xml"), "application/xml");
  EXPECT_EQ(answerType("*/*;q=0.1, application/json", "text/xml"), "application/json");
}

TEST(MediaType, AnswersAsSentWhenNothingIsLiked) {
  EXPECT_EQ(answerType("text/html, image/*", "text/xml"), "text/xml");
  EXPECT_EQ(answerType("", "text/xml"), "text/xml");
  EXPECT_EQ(answerType("application/json;q=0", "text/xml"), "text/xml");
  EXPECT_EQ(answerType(",,;;=", "application/json"), "application/json");
}

}  // namespace
}  // namespace tessard
