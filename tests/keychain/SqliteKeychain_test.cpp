#include "platform/keychain/SqliteKeychain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <unistd.h>

#include <tuple>

#include "platform/keychain/KeychainManager.h"
#include "tests/support/FakeClock.h"
#include "tests/support/FaultyKeychain.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/TestCertificates.h"
#include "tests/support/TestPlatform.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kAccount = "com.velto.notificationuser";
const std::string kBridge = "com.velto.KorvBridge.https";

SecAccess accessOf(std::uint32_t user) {
  const AclSubject subject{.mask = CSSM_ACL_MATCH_UID, .uid = user};
  return SecAccessCreateFromOwnerAndACL({subject},
                                        {{subject, false, {AclAuthorization::CSSM_ACL_AUTHORIZATION_ANY}}});
}

struct Keychains : testing::Test {
  ScratchRoot root;
  FakeClock clock;
  std::vector<std::string> problems;
  SqliteKeychain keychain{root.path(), ownersForTests(),
                          [this](const std::string& problem) { problems.push_back(problem); }};
  KeychainManager manager{root.path(), clock};

  Keychains() { keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system); }

  KeychainAnswer<KeychainItem> create(const std::string& account, const std::string& data,
                                      const SecAccess& access = accessOf(0)) {
    return keychain.SecKeychainItemCreateFromContent({"a label", account}, data, access);
  }
  void import(const TestCertificate& certificate, bool withKey = true) {
    const auto imported =
        manager.importFile(certificate.pem() + (withKey ? certificate.keyPem() : ""), nullptr, withKey);
    ASSERT_TRUE(imported) << imported.error().text;
  }
  KeychainIdentity identity(const std::string& subject) {
    const auto found = keychain.SecItemCopyMatching(subject);
    EXPECT_EQ(found.status, errSecSuccess);
    const auto made = keychain.SecIdentityCreateWithCertificate(*found.value);
    EXPECT_EQ(made.status, errSecSuccess);
    return *made.value;
  }
  // The labels and values of the subject of the first certificate of this text; "-" for no value.
  std::vector<std::string> subject(const std::string& text) {
    const auto values = keychain.SecCertificateCopyValues(*keychain.SecItemCopyMatching(text).value);
    std::vector<std::string> lines;
    for (const Value& entry :
         *values.value().dictionaryFor(kSecOIDX509V1SubjectName)->arrayFor(kSecPropertyKeyValue)) {
      const std::string* value = entry.asDictionary()->stringFor(kSecPropertyKeyValue);
      lines.push_back(*entry.asDictionary()->stringFor(kSecPropertyKeyLabel) + "=" + (value ? *value : "-"));
    }
    return lines;
  }
};

TEST_F(Keychains, NothingIsMadeBeforeTheFirstItemIsKept) {
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword(kAccount).status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecItemCopyMatching("x").status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecKeychainItemModifyContent({1}, "x"), errSecItemNotFound);
  EXPECT_EQ(keychain.SecIdentitySetPreferred(std::nullopt, kBridge), errSecSuccess);
  EXPECT_FALSE(keychain.SecIdentityCopyPreferred(kBridge));
  EXPECT_FALSE(root.exists("/var/lib"));
  EXPECT_EQ(create(kAccount, "secret").status, errSecSuccess);
  EXPECT_EQ(root.mode("/var/lib/tessardd/keychain"), 0700);
  EXPECT_EQ(root.mode("/var/lib/tessardd/keychain/keychain.db"), 0600);
  EXPECT_EQ(root.mode("/var/lib/tessardd/keychain/keychain.key"), 0400);
  EXPECT_THAT(root.list("/var/lib/tessardd/keychain"), ElementsAre("keychain.db", "keychain.key"));
  EXPECT_THAT(problems, IsEmpty());
}

TEST_F(Keychains, APasswordIsFoundByItsAccountWhateverItsLabel) {
  const std::string data("p\0\xff \n", 5);
  const auto created = create(kAccount, data);
  ASSERT_EQ(create("another", "").status, errSecSuccess);
  const auto found = keychain.SecKeychainFindGenericPassword(kAccount);
  ASSERT_EQ(found.status, errSecSuccess);
  EXPECT_EQ(found.value->data, data);
  EXPECT_EQ(found.value->item.id, created.value->id);
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword("another").value->data, "");
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword("COM.velto.notificationuser").status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword("").status, errSecParam);
}

TEST_F(Keychains, NewContentReplacesTheOldAndTheItemStaysTheSame) {
  const auto created = create(kAccount, "old");
  EXPECT_EQ(keychain.SecKeychainItemModifyContent(*created.value, "new"), errSecSuccess);
  const auto found = keychain.SecKeychainFindGenericPassword(kAccount);
  EXPECT_EQ(found.value->data, "new");
  EXPECT_EQ(found.value->item.id, created.value->id);
  EXPECT_EQ(create(kAccount, "third").status, errSecDuplicateItem);
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword(kAccount).value->data, "new");
}

TEST_F(Keychains, AReferenceToADeletedItemFindsNothingEvenWhenTheAccountIsBack) {
  const auto created = create(kAccount, "old");
  ASSERT_TRUE(manager.removePassword(kAccount).value());
  ASSERT_EQ(create(kAccount, "new").status, errSecSuccess);
  EXPECT_EQ(keychain.SecKeychainItemModifyContent(*created.value, "x"), errSecItemNotFound);
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword(kAccount).value->data, "new");
}

TEST_F(Keychains, AnItemOfAnotherUserIsNeitherReadNorChanged) {
  const auto created = create(kAccount, "secret", accessOf(4711));
  ASSERT_EQ(created.status, errSecSuccess);
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword(kAccount).status, errSecInteractionNotAllowed);
  EXPECT_FALSE(keychain.SecKeychainFindGenericPassword(kAccount).value);
  EXPECT_EQ(keychain.SecKeychainItemModifyContent(*created.value, "x"), errSecInteractionNotAllowed);
  EXPECT_EQ(create(kAccount, "x").status, errSecDuplicateItem);
  // The user of the access list is the one of this process on another root.
  SqliteKeychain mapped(root.path(), {{{4711, ::geteuid()}}, {}});
  EXPECT_EQ(mapped.SecKeychainFindGenericPassword(kAccount).value->data, "secret");
}

TEST_F(Keychains, AnAccessListIsMatchedInAllPartsThatItNames) {
  const auto withMask = [](std::uint16_t mask, std::uint32_t user, std::uint32_t group,
                           bool authorised = true) {
    const AclSubject subject{.mask = mask, .uid = user, .gid = group};
    AclEntry entry{subject, false, {}};
    if (authorised) entry.authorizations = {AclAuthorization::CSSM_ACL_AUTHORIZATION_ANY};
    return SecAccessCreateFromOwnerAndACL({subject}, {entry});
  };
  const std::uint32_t user = ::geteuid();
  const std::uint32_t group = ::getegid();
  SqliteKeychain plain(root.path());
  plain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system);
  const auto statusWith = [&](const std::string& account, const SecAccess& access) {
    EXPECT_EQ(plain.SecKeychainItemCreateFromContent({"", account}, "x", access).status, errSecSuccess);
    return plain.SecKeychainFindGenericPassword(account).status;
  };
  EXPECT_EQ(statusWith("both", withMask(CSSM_ACL_MATCH_UID | CSSM_ACL_MATCH_GID, user, group)),
            errSecSuccess);
  EXPECT_EQ(statusWith("group", withMask(CSSM_ACL_MATCH_GID, user + 1, group)), errSecSuccess);
  EXPECT_EQ(statusWith("user", withMask(CSSM_ACL_MATCH_UID, user, group + 1)), errSecSuccess);
  EXPECT_EQ(statusWith("wrong group", withMask(CSSM_ACL_MATCH_UID | CSSM_ACL_MATCH_GID, user, group + 1)),
            errSecInteractionNotAllowed);
  EXPECT_EQ(statusWith("nothing allowed", withMask(CSSM_ACL_MATCH_UID, user, group, false)),
            errSecInteractionNotAllowed);
  EXPECT_EQ(statusWith("no entry", SecAccessCreateFromOwnerAndACL(accessOf(user).owner, {})),
            errSecInteractionNotAllowed);
}

TEST_F(Keychains, AnAccessListThatNamesNobodyIsRefused) {
  SecAccess access = accessOf(0);
  access.entries[0].subject.mask = 0;
  EXPECT_EQ(create(kAccount, "x", access).status, errSecParam);
  access = accessOf(0);
  access.owner.subject.mask = 4;
  EXPECT_EQ(create(kAccount, "x", access).status, errSecParam);
  access = accessOf(0);
  access.owner.subject.version = 0x0102;
  EXPECT_EQ(create(kAccount, "x", access).status, errSecParam);
  EXPECT_FALSE(root.exists("/var/lib"));
}

TEST_F(Keychains, NamesThatAreNoTextAreRefused) {
  EXPECT_EQ(create("", "x").status, errSecParam);
  EXPECT_EQ(create(std::string("a\0b", 3), "x").status, errSecParam);
  EXPECT_EQ(create("\xff", "x").status, errSecParam);
  EXPECT_EQ(create(kAccount, std::string(1024 * 1024 + 1, 'x')).status, errSecParam);
  EXPECT_EQ(create("a'; DROP TABLE generic_password; --", "kept").status, errSecSuccess);
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword("a'; DROP TABLE generic_password; --").value->data,
            "kept");
}

TEST_F(Keychains, OnlyTheSystemDomainHasAKeychainThatNewItemsGoTo) {
  const TestCertificate made("a");
  import(made);
  const KeychainIdentity chosen = identity("a");
  ASSERT_EQ(create(kAccount, "x").status, errSecSuccess);
  ASSERT_EQ(keychain.SecIdentitySetPreferred(chosen, kBridge), errSecSuccess);
  keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::user);
  EXPECT_EQ(create("another", "x").status, errSecNoDefaultKeychain);
  EXPECT_EQ(keychain.SecIdentitySetPreferred(chosen, "other"), errSecNoDefaultKeychain);
  // Both search it, and what is found may be changed.
  EXPECT_EQ(keychain.SecKeychainFindGenericPassword(kAccount).status, errSecSuccess);
  EXPECT_TRUE(keychain.SecIdentityCopyPreferred(kBridge));
  EXPECT_EQ(keychain.SecIdentitySetPreferred(std::nullopt, kBridge), errSecSuccess);
  EXPECT_FALSE(keychain.SecIdentityCopyPreferred(kBridge));
  SqliteKeychain fresh(root.path(), ownersForTests());
  EXPECT_EQ(fresh.SecKeychainItemCreateFromContent({"", "b"}, "x", accessOf(0)).status,
            errSecNoDefaultKeychain);
}

TEST_F(Keychains, TheOldestCertificateWhoseSubjectContainsTheTextIsFound) {
  import(TestCertificate({.subject = {
    TestCertificate::commonName("Push Mail"),
    TestCertificate::topic("com.x.mail")
  }}));
  import(TestCertificate("push calendar"));
  EXPECT_EQ(keychain.SecItemCopyMatching("PUSH").value->id, keychain.SecItemCopyMatching("x.Mail").value->id);
  EXPECT_NE(keychain.SecItemCopyMatching("PUSH").value->id,
            keychain.SecItemCopyMatching("calendar").value->id);
  EXPECT_EQ(keychain.SecItemCopyMatching("Mailcom").status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecItemCopyMatching("2.5.4.3").status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecItemCopyMatching("").status, errSecParam);
}

TEST_F(Keychains, ACertificateWithoutItsKeyIsNoIdentity) {
  import(TestCertificate("a"), false);
  const auto found = keychain.SecItemCopyMatching("a");
  EXPECT_EQ(keychain.SecIdentityCreateWithCertificate(*found.value).status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecIdentitySetPreferred(KeychainIdentity{found.value->id}, kBridge), errSecItemNotFound);
  EXPECT_FALSE(keychain.SecIdentityCopyPreferred(kBridge));
}

TEST_F(Keychains, ThePreferredIdentityOfANameIsTheLastOneChosen) {
  import(TestCertificate("first"));
  import(TestCertificate("second"));
  ASSERT_EQ(keychain.SecIdentitySetPreferred(identity("first"), kBridge), errSecSuccess);
  ASSERT_EQ(keychain.SecIdentitySetPreferred(identity("second"), kBridge), errSecSuccess);
  EXPECT_EQ(keychain.SecIdentityCopyPreferred(kBridge)->certificate, identity("second").certificate);
  EXPECT_FALSE(keychain.SecIdentityCopyPreferred("another"));
  const auto certificate = keychain.SecIdentityCopyCertificate(*keychain.SecIdentityCopyPreferred(kBridge));
  EXPECT_EQ(certificate.value->id, keychain.SecItemCopyMatching("second").value->id);
  EXPECT_EQ(keychain.SecIdentitySetPreferred(std::nullopt, kBridge), errSecSuccess);
  EXPECT_FALSE(keychain.SecIdentityCopyPreferred(kBridge));
  EXPECT_EQ(keychain.SecIdentitySetPreferred(std::nullopt, kBridge), errSecSuccess);
  EXPECT_EQ(keychain.SecIdentitySetPreferred(identity("first"), ""), errSecParam);
}

TEST_F(Keychains, WhatIsDeletedIsNoLongerPreferredAndCannotBeUsed) {
  import(TestCertificate("first"));
  const KeychainIdentity chosen = identity("first");
  ASSERT_EQ(keychain.SecIdentitySetPreferred(chosen, kBridge), errSecSuccess);
  ASSERT_TRUE(manager.removeCertificate("first"));
  EXPECT_FALSE(keychain.SecIdentityCopyPreferred(kBridge));
  EXPECT_EQ(keychain.SecIdentityCopyCertificate(chosen).status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecIdentitySetPreferred(chosen, kBridge), errSecItemNotFound);
  EXPECT_EQ(keychain.SecIdentityCreateWithCertificate({chosen.certificate}).status, errSecItemNotFound);
  EXPECT_EQ(keychain.SecCertificateCopyValues({chosen.certificate}).error().description(),
            "The item is not in the keychain");
}

TEST_F(Keychains, TheSubjectsAttributesComeInTheirOrderLabelledByTheirDottedIdentifiers) {
  import(TestCertificate({.subject = {
    TestCertificate::topic("first.topic"),
    TestCertificate::commonName("me"),
    {"1.2.3.4.5.6.7", V_ASN1_UTF8STRING, "own"},
    TestCertificate::topic("second.topic")
  }}));
  EXPECT_THAT(subject("me"), ElementsAre("0.9.2342.19200300.100.1.1=first.topic", "2.5.4.3=me",
                                         "1.2.3.4.5.6.7=own", "0.9.2342.19200300.100.1.1=second.topic"));
  EXPECT_EQ(manager.certificate("me").value().topic, "first.topic");
}

TEST_F(Keychains, ASubjectWithoutATopicHasNone) {
  import(TestCertificate("me"));
  EXPECT_THAT(subject("me"), ElementsAre("2.5.4.3=me"));
  EXPECT_EQ(manager.certificate("me").value().topic, std::nullopt);
}

TEST_F(Keychains, AValueThatHasNoSafeTextIsLeftOutAndDoesNotMakeWayForALaterOne) {
  using namespace std::string_view_literals;
  import(TestCertificate({.subject = {
    TestCertificate::commonName("holder"),
    TestCertificate::topic(std::string("good\0.evil"sv)),
    TestCertificate::topic("a later one")
  }}));
  EXPECT_THAT(subject("holder"), ElementsAre("2.5.4.3=holder", "0.9.2342.19200300.100.1.1=-",
                                             "0.9.2342.19200300.100.1.1=a later one"));
  EXPECT_EQ(manager.certificate("holder").value().topic, std::nullopt);
  EXPECT_EQ(keychain.SecItemCopyMatching("evil").status, errSecItemNotFound);
}

TEST_F(Keychains, TopicsOfEveryStringTypeThatCertificatesHaveAreRead) {
  using namespace std::string_view_literals;
  const std::vector<std::tuple<int, std::string_view, std::string>> topics = {
      {V_ASN1_UTF8STRING, "caf\xc3\xa9"sv, "caf\xc3\xa9"},
      {V_ASN1_PRINTABLESTRING, "com.example.1"sv, "com.example.1"},
      {V_ASN1_IA5STRING, "com.example@2"sv, "com.example@2"},
      {V_ASN1_NUMERICSTRING, "12 3"sv, "12 3"},
      {V_ASN1_TELETEXSTRING, "caf\xe9 4"sv, "caf\xc3\xa9 4"},
      {V_ASN1_UNIVERSALSTRING, "\0\0\0a\0\1\xf6\0"sv, "a\xf0\x9f\x98\x80"},
      {V_ASN1_BMPSTRING, "\0a\x20\xac"sv, "a\xe2\x82\xac"},
  };
  for (const auto& [type, bytes, expected] : topics) {
    const std::string name = "type " + std::to_string(type);
    import(TestCertificate({.subject = {
      {"0.9.2342.19200300.100.1.1", type, std::string(bytes)},
      TestCertificate::commonName(name)
    }}));
    EXPECT_EQ(subject(name)[0], "0.9.2342.19200300.100.1.1=" + expected) << name;
    EXPECT_EQ(manager.certificate(name).value().topic, expected) << name;
  }
}

TEST_F(Keychains, ACertificateWhoseNameBreaksTheRulesIsNotTaken) {
  const TestCertificate made({.subject = {{"2.5.4.3", V_ASN1_IA5STRING, "abc"}}});
  for (const std::string& name : {std::string("\x0c\x03\xed\xa0\x80"), std::string("\x1c\x03") + "abc",
                                  std::string("\x1a\x03") + "abc", std::string("\x04\x03") + "abc"}) {
    std::string der = made.der();
    for (std::size_t at = 0; (at = der.find("\x16\x03"
                                            "abc",
                                            at)) != std::string::npos;)
      der.replace(at, 5, name);
    ASSERT_NE(der, made.der());
    EXPECT_EQ(manager.importFile(TestCertificate::pemOf(der), nullptr, false).error().problem,
              KeychainProblem::malformed);
  }
}

TEST(FaultyKeychains, AnOperationThatIsMadeToFailDoesNotReachTheKeychain) {
  TestPlatform platform;
  platform.keychain.SecKeychainSetPreferenceDomain(SecPreferencesDomain::system);
  platform.keychain.fail("SecKeychainItemCreateFromContent", errSecWrPerm);
  const auto create = [&] {
    return platform.keychain.SecKeychainItemCreateFromContent({"", "account"}, "x", accessOf(0)).status;
  };
  EXPECT_EQ(create(), errSecWrPerm);
  EXPECT_FALSE(platform.root.exists("/var/lib"));
  platform.keychain.heal();
  EXPECT_EQ(create(), errSecSuccess);
  EXPECT_EQ(platform.keychain.calls.size(), 3U);
  EXPECT_THROW(platform.keychain.fail("SecNothing", errSecIO), std::invalid_argument);
}

}  // namespace
}  // namespace tessard
