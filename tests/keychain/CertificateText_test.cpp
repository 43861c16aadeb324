#include "platform/keychain/CertificateText.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>

namespace tessard {
namespace {

using namespace std::string_view_literals;

struct StringCase {
  const char* name;
  int type;
  std::string_view bytes;
  std::optional<std::string> expected;
};

void PrintTo(const StringCase& shown, std::ostream* out) {
  *out << shown.name;
}

struct CertificateStrings : testing::TestWithParam<StringCase> {};

TEST_P(CertificateStrings, AreReadByTheRulesOfTheirTypes) {
  const std::unique_ptr<ASN1_STRING, void (*)(ASN1_STRING*)> value(ASN1_STRING_type_new(GetParam().type),
                                                                   ASN1_STRING_free);
  ASN1_STRING_set(value.get(), GetParam().bytes.data(), static_cast<int>(GetParam().bytes.size()));
  EXPECT_EQ(textOf(value.get()), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    All, CertificateStrings,
    testing::Values(
        StringCase{"Utf8", V_ASN1_UTF8STRING, "topic \xc3\xa9\xf0\x9f\x98\x80",
                   "topic \xc3\xa9\xf0\x9f\x98\x80"},
        StringCase{"Utf8Broken", V_ASN1_UTF8STRING, "topic\xc3", std::nullopt},
        StringCase{"Utf8Surrogate", V_ASN1_UTF8STRING, "\xed\xa0\x80", std::nullopt},
        StringCase{"Utf8WithNul", V_ASN1_UTF8STRING, "good\0.evil"sv, std::nullopt},
        StringCase{"Utf8WithNulAtTheEnd", V_ASN1_UTF8STRING, "good\0"sv, std::nullopt},
        StringCase{"Utf8WithLineEnd", V_ASN1_UTF8STRING, "a\nb", std::nullopt},
        StringCase{"Utf8WithHighControl", V_ASN1_UTF8STRING, "a\xc2\x85", std::nullopt},
        StringCase{"Printable", V_ASN1_PRINTABLESTRING, "com.example", "com.example"},
        StringCase{"PrintableNotAscii", V_ASN1_PRINTABLESTRING, "a\xe9", std::nullopt},
        StringCase{"Ia5", V_ASN1_IA5STRING, "a@b_c*", "a@b_c*"},
        StringCase{"Ia5NotAscii", V_ASN1_IA5STRING, "a\x80", std::nullopt},
        StringCase{"Ia5WithNul", V_ASN1_IA5STRING, "a\0b"sv, std::nullopt},
        StringCase{"Visible", V_ASN1_VISIBLESTRING, "a b~", "a b~"},
        StringCase{"VisibleWithDelete", V_ASN1_VISIBLESTRING, "a\x7f", std::nullopt},
        StringCase{"Numeric", V_ASN1_NUMERICSTRING, "12 3", "12 3"},
        StringCase{"Teletex", V_ASN1_TELETEXSTRING, "caf\xe9", "caf\xc3\xa9"},
        StringCase{"TeletexWithControl", V_ASN1_TELETEXSTRING, "a\x9b", std::nullopt},
        StringCase{"Universal", V_ASN1_UNIVERSALSTRING, "\0\0\0a\0\1\xf6\0"sv, "a\xf0\x9f\x98\x80"},
        StringCase{"UniversalOfABrokenLength", V_ASN1_UNIVERSALSTRING, "\0\0\0a\0\0"sv, std::nullopt},
        StringCase{"UniversalTooHigh", V_ASN1_UNIVERSALSTRING, "\0\x11\0\0"sv, std::nullopt},
        StringCase{"UniversalSurrogate", V_ASN1_UNIVERSALSTRING, "\0\0\xd8\0"sv, std::nullopt},
        StringCase{"UniversalNul", V_ASN1_UNIVERSALSTRING, "\0\0\0a\0\0\0\0"sv, std::nullopt},
        StringCase{"Bmp", V_ASN1_BMPSTRING, "\0a\x20\xac"sv, "a\xe2\x82\xac"},
        StringCase{"BmpWithSurrogates", V_ASN1_BMPSTRING, "\xd8\x3d\xde\0"sv, "\xf0\x9f\x98\x80"},
        StringCase{"BmpWithLoneHighSurrogate", V_ASN1_BMPSTRING, "\xd8\x3d\0a"sv, std::nullopt},
        StringCase{"BmpWithLoneLowSurrogate", V_ASN1_BMPSTRING, "\xde\0"sv, std::nullopt},
        StringCase{"BmpBrokenOffInAPair", V_ASN1_BMPSTRING, "\0a\xd8\x3d"sv, std::nullopt},
        StringCase{"BmpWithByteOrderMark", V_ASN1_BMPSTRING, "\xfe\xff\0a"sv, "a"},
        StringCase{"BmpOfABrokenLength", V_ASN1_BMPSTRING, "\0a\0"sv, std::nullopt},
        StringCase{"BmpNul", V_ASN1_BMPSTRING, "\0a\0\0"sv, std::nullopt},
        StringCase{"Empty", V_ASN1_UTF8STRING, "", ""},
        StringCase{"NoString", V_ASN1_OCTET_STRING, "abc", std::nullopt},
        StringCase{"AnUnknownString", V_ASN1_GENERALSTRING, "abc", std::nullopt}),
    [](const auto& chosen) { return chosen.param.name; });

}  // namespace
}  // namespace tessard
