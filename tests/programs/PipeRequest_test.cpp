#include "programs/authenticator/PipeRequest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace tessard {
namespace {

using namespace std::string_view_literals;
using Kind = PipeRequest::Kind;

Kind kindOf(std::string_view written) {
  PipeRequest request;
  readPipeRequest(written, request);
  return request.kind;
}

TEST(PipeRequest, AQuestionForAPasswordHoldsNameAndPassword) {
  PipeRequest request;
  readPipeRequest("CHECK-PASSWORD com.velto.notificationuser b3BlbiBzZXNhbWU= push.example.test\n", request);
  EXPECT_EQ(request.kind, Kind::checkPassword);
  EXPECT_EQ(request.name, "com.velto.notificationuser");
  EXPECT_EQ(request.password.text(), "open sesame");
}

TEST(PipeRequest, AQuestionForAnAccountHoldsItsName) {
  PipeRequest request;
  readPipeRequest("USER-EXISTS ann push.example.test\n", request);
  EXPECT_EQ(request.kind, Kind::userExists);
  EXPECT_EQ(request.name, "ann");
}

TEST(PipeRequest, ADomainMayBeEmptyWhereC2sWasToldToUseNone) {
  EXPECT_EQ(kindOf("CHECK-PASSWORD ann cA== \n"), Kind::checkPassword);
  EXPECT_EQ(kindOf("USER-EXISTS ann \n"), Kind::userExists);
}

TEST(PipeRequest, TheEndIsUnderstood) {
  EXPECT_EQ(kindOf("FREE\n"), Kind::end);
}

TEST(PipeRequest, MoreThanOneLineIsMalformed) {
  // A name that ends its line and makes one of its own, which would be answered in place of the next login.
  EXPECT_EQ(kindOf("CHECK-PASSWORD x\nCHECK-PASSWORD ann cA== d cA== d\n"), Kind::malformed);
  EXPECT_EQ(kindOf("CHECK-PASSWORD x\nFREE\n"), Kind::malformed);
  EXPECT_EQ(kindOf("USER-EXISTS ann d\n\n"), Kind::malformed);
  EXPECT_EQ(kindOf("USER-EXISTS ann d\r\n"), Kind::malformed);
}

TEST(PipeRequest, ACutLineIsMalformed) {
  EXPECT_EQ(kindOf(""), Kind::malformed);
  EXPECT_EQ(kindOf("FREE"), Kind::malformed);
  EXPECT_EQ(kindOf("CHECK-PASSWORD ann cA== d"), Kind::malformed);
  EXPECT_EQ(kindOf("CHECK-PASSWORD " + std::string(1008, 'n')), Kind::malformed);
}

TEST(PipeRequest, AnotherNumberOfFieldsIsMalformed) {
  EXPECT_EQ(kindOf("CHECK-PASSWORD ann cA==\n"), Kind::malformed);
  EXPECT_EQ(kindOf("CHECK-PASSWORD ann bee cA== d\n"), Kind::malformed);
  EXPECT_EQ(kindOf("CHECK-PASSWORD ann  d\n"), Kind::malformed) << "an empty password";
  EXPECT_EQ(kindOf("CHECK-PASSWORD  cA== d\n"), Kind::malformed) << "an empty name";
  EXPECT_EQ(kindOf("USER-EXISTS ann\n"), Kind::malformed);
  EXPECT_EQ(kindOf("FREE \n"), Kind::malformed);
  EXPECT_EQ(kindOf(std::string(1000, ' ') + "\n"), Kind::malformed);
}

TEST(PipeRequest, QuestionsThatAreNotAnsweredAreMalformed) {
  for (const std::string_view text :
       {"SET-PASSWORD ann cA== d\n"sv, "CREATE-USER ann d\n"sv, "DELETE-USER ann d\n"sv,
        "GET-PASSWORD ann d\n"sv, "check-password ann cA== d\n"sv}) {
    EXPECT_EQ(kindOf(text), Kind::malformed) << text;
  }
}

TEST(PipeRequest, NamesThatCouldBecomeAnotherAddressAreRefused) {
  for (const std::string_view name : {"Ann"sv, "ANN"sv, "\xC3\xA4nn"sv, "a:b"sv, "a@b"sv, "a/b"sv, "-ann"sv,
                                      "a\tb"sv, "a\0b"sv, "a\x7F"sv, "ann$"sv, "ann\\20"sv, ""sv}) {
    EXPECT_FALSE(isLoginName(name)) << name;
    EXPECT_EQ(kindOf("USER-EXISTS " + std::string(name) + " d\n"), Kind::malformed) << name;
  }
  for (const std::string_view name :
       {"ann"sv, "com.velto.notificationuser"sv, "_apt"sv, "a-b_c.1"sv, "1"sv}) {
    EXPECT_TRUE(isLoginName(name)) << name;
  }
}

TEST(PipeRequest, NamesHaveALimit) {
  EXPECT_TRUE(isLoginName(std::string(255, 'n')));
  EXPECT_FALSE(isLoginName(std::string(256, 'n')));
}

TEST(PipeRequest, PasswordsAreTakenByteByByte) {
  for (const auto& [base64, text] : {std::pair{"IA=="sv, " "sv},
                                     {"w6Q="sv, "\xC3\xA4"sv},
                                     {"//79"sv, "\xFF\xFE\xFD"sv},
                                     {"YToiXCc="sv, "a:\"\\'"sv},
                                     {"YQpi"sv, "a\nb"sv}}) {
    Password password;
    EXPECT_TRUE(password.decode(base64)) << base64;
    EXPECT_EQ(password.text(), text);
  }
}

TEST(PipeRequest, PasswordsHaveALimit) {
  Password password;
  std::string longest;
  for (int i = 0; i < 85; ++i) longest += "YWFh";
  EXPECT_TRUE(password.decode(longest));
  EXPECT_EQ(password.text(), std::string(255, 'a'));
  EXPECT_FALSE(password.decode(longest + "YQ=="));
  EXPECT_FALSE(password.decode(longest + longest));
  EXPECT_EQ(password.text(), "");
}

TEST(PipeRequest, WhatIsNotCanonicalBase64IsNoPassword) {
  for (const std::string_view text :
       {""sv, "Y"sv, "YQ"sv, "YQ="sv, "YQ==="sv, "===="sv, "Y==="sv, "YR=="sv, "YWJ="sv, "Y=Q="sv,
        "YQ==YQ=="sv, "YW-_"sv, " YQ=="sv, "YQ==    "sv, "\nYWF"sv, "YWFh\n\n\n\n"sv, "\xC3\xA4\xC3\xA4"sv}) {
    Password password;
    EXPECT_FALSE(password.decode(text)) << text;
    EXPECT_EQ(password.text(), "");
  }
}

TEST(PipeRequest, APasswordWithANulByteIsNone) {
  Password password;
  EXPECT_FALSE(password.decode("YQBi"));  // "a", NUL, "b"
  EXPECT_FALSE(password.decode("YWFhAA=="));
  EXPECT_FALSE(password.decode("AA=="));
}

}  // namespace
}  // namespace tessard
