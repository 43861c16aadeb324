#include "common/PropertyList.h"
#include "tests/coordinator/CoordinatorFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

enum class Kind { string, integer, boolean, array };

struct Default {
  const char* key;
  Kind kind;
  Value value;
};

const std::vector<Default>& defaults() {
  static const std::vector<Default> table = {
      {"hosts", Kind::array, Array{"chat.example.com"}},
      {"sslKeyFile", Kind::string, ""},
      {"sslCAFile", Kind::string, ""},
      {"authLevel", Kind::string, "STANDARD"},
      {"enableAutoBuddy", Kind::boolean, false},
      {"enableXMPP", Kind::boolean, true},
      {"requireSecureS2S", Kind::boolean, false},
      {"s2sRestrictDomains", Kind::boolean, false},
      {"s2sAllowedDomains", Kind::array, Array{}},
      {"logLevel", Kind::string, "ALL"},
      {"eventLogArchiveInterval", Kind::integer, 7},
      {"enableSavedChats", Kind::boolean, false},
      {"savedChatsLocation", Kind::string, "/Library/Server/Parlance/Data/message_archives"},
      {"savedChatsArchiveInterval", Kind::integer, 7},
      {"jabberdDatabasePath", Kind::string, "/private/var/jabberd/sqlite/jabberd2_notification.db"},
      {"logLevelValues", Kind::array, Array{"NONE", "ERROR", "ALL", "DEBUG"}},
      {"initialized", Kind::boolean, false},
      {"hostsCommaDelimitedString", Kind::string, "chat.example.com"},
      {"roomsFileSharingEnabled", Kind::boolean, false},
      {"roomsFileSharingExpireIntervalHours", Kind::integer, 168},
      {"jabberdClientPortTLS", Kind::integer, 5218},
      {"jabberdClientPortSSL", Kind::integer, 0},
      {"jabberdS2SPort", Kind::integer, 5268},
  };
  return table;
}

Kind kindOf(const Value& value) {
  if (value.asString()) return Kind::string;
  if (value.asInteger()) return Kind::integer;
  if (value.asBoolean()) return Kind::boolean;
  EXPECT_NE(value.asArray(), nullptr);
  return Kind::array;
}

void expectDefaults(const Dictionary& preferences) {
  std::vector<std::string> keys;
  std::vector<std::string> expected;
  for (const DictionaryEntry& entry : preferences) keys.push_back(entry.key);
  for (const Default& wanted : defaults()) {
    expected.emplace_back(wanted.key);
    const Value* value = preferences.find(wanted.key);
    ASSERT_NE(value, nullptr) << wanted.key;
    EXPECT_EQ(*value, wanted.value) << wanted.key;
    EXPECT_EQ(kindOf(*value), wanted.kind) << wanted.key;
  }
  EXPECT_THAT(keys, ElementsAreArray(expected));
}

struct Preferences : Coordinated {
  Dictionary stored() {
    const auto read = readPropertyListFile(platform.posixFiles, kPreferencesFile);
    EXPECT_TRUE(read.ok());
    return read ? read.value() : Dictionary{};
  }
  void store(const Dictionary& preferences) {
    platform.root.makeDirectory("/Library/Preferences");
    ASSERT_TRUE(writePropertyListFile(platform.posixFiles, kPreferencesFile, preferences, {}).ok());
  }
  void loseTheHostName() {
    platform.hostNames.configured.reset();
    platform.hostNames.stored.reset();
  }
};

TEST_F(Preferences, TheDefaultsHaveEveryKeyInOrderWithItsKindOfValue) {
  const auto made = wrangler->defaultPreferences();
  ASSERT_TRUE(made);
  expectDefaults(*made);
}

TEST_F(Preferences, ThereAreNoDefaultsWithoutAHostName) {
  loseTheHostName();
  EXPECT_EQ(wrangler->defaultPreferences(), std::nullopt);
}

TEST_F(Preferences, ExistWhenTheirFileDoes) {
  EXPECT_FALSE(wrangler->preferencesExist());
  platform.root.write(kPreferencesFile, "anything");
  EXPECT_TRUE(wrangler->preferencesExist());
}

TEST_F(Preferences, AreSeededWithAllDefaultsByTheFirstLoad) {
  const auto loaded = wrangler->loadPreferences();
  ASSERT_TRUE(loaded);
  expectDefaults(*loaded);
  expectDefaults(stored());
  EXPECT_THAT(platform.root.read(kPreferencesFile), HasSubstr("<plist"));
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(Preferences, AreSeededByTheFirstReadingOfAValue) {
  EXPECT_EQ(wrangler->getPreferenceValueForKey("initialized"), Value(false));
  expectDefaults(stored());
}

TEST_F(Preferences, AreNotSeededWithoutAHostName) {
  loseTheHostName();
  EXPECT_EQ(wrangler->loadPreferences(), std::nullopt);
  EXPECT_EQ(wrangler->getPreferenceValueForKey("initialized"), std::nullopt);
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(Preferences, AreReadFromTheirFileOnceItIsThere) {
  store({{"initialized", true}, {"other", Array{"x"}}});
  EXPECT_EQ(wrangler->loadPreferences(), (Dictionary{{"initialized", true}, {"other", Array{"x"}}}));
  EXPECT_EQ(wrangler->getPreferenceValueForKey("other"), Value(Array{"x"}));
  EXPECT_EQ(wrangler->getPreferenceValueForKey("logLevel"), std::nullopt);
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_EQ(platform.hostNames.configuredAsked, 0);
}

TEST_F(Preferences, AreReadableByTheirOwnerAlone) {
  wrangler->loadPreferences();
  EXPECT_EQ(platform.root.mode(kPreferencesFile), 0600U);
}

TEST_F(Preferences, TheirDirectoryIsMadeWhenItIsMissing) {
  wrangler->loadPreferences();
  EXPECT_EQ(platform.root.mode("/Library"), 0755U);
  EXPECT_EQ(platform.root.mode("/Library/Preferences"), 0755U);
}

TEST_F(Preferences, AreTheOldOnesOrTheNewOnesAtEveryMomentOfASave) {
  const Dictionary older{{"a", 1}};
  const Dictionary newer{{"a", 2}};
  store(older);
  int moments = 0;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call&) {
    const Dictionary now = stored();
    EXPECT_TRUE(now == older || now == newer);
    ++moments;
  };
  wrangler->savePreferences(newer);
  EXPECT_GT(moments, 2);
  EXPECT_EQ(stored(), newer);
  EXPECT_THAT(platform.root.list("/Library/Preferences"),
              ElementsAre("com.velto.tessard_notification.plist"));
}

TEST_F(Preferences, SettingAValueKeepsAllOthers) {
  store({{"a", 1}, {"b", "x"}});
  EXPECT_TRUE(wrangler->setPreferenceValue_forKey(true, "a"));
  EXPECT_TRUE(wrangler->setPreferenceValue_forKey(Array{1}, "c"));
  EXPECT_EQ(stored(), (Dictionary{{"a", true}, {"b", "x"}, {"c", Array{1}}}));
}

TEST_F(Preferences, SettingInitializedFirstWritesTheWholeTable) {
  std::vector<Dictionary> written;
  platform.files.beforeCall = [&](const FaultyFileSystem::Call& call) {
    if (call.operation == "syncDirectory") written.push_back(stored());
  };
  EXPECT_TRUE(wrangler->setPreferenceValue_forKey(true, "initialized"));
  ASSERT_EQ(written.size(), 2U);
  expectDefaults(written[0]);
  EXPECT_EQ(*written[0].find("initialized"), Value(false));
  Dictionary expected = written[0];
  expected.set("initialized", true);
  EXPECT_EQ(written[1], expected);
  EXPECT_NE(written[1].find("initialized")->asBoolean(), nullptr);
}

TEST_F(Preferences, AnUnreadableFileReadsAsNone) {
  for (const char* content :
       {"", "not a property list", "<?xml version=\"1.0\"?><plist><string>x</string></plist>"}) {
    platform.root.write(kPreferencesFile, content);
    EXPECT_EQ(wrangler->loadPreferences(), std::nullopt) << content;
    EXPECT_EQ(wrangler->getPreferenceValueForKey("initialized"), std::nullopt) << content;
    EXPECT_EQ(platform.root.read(kPreferencesFile), content);
  }
}

TEST_F(Preferences, AFileThatMayNotBeReadReadsAsNone) {
  store({{"a", 1}});
  platform.files.failPath("readFile", ".plist", EACCES);
  EXPECT_EQ(wrangler->loadPreferences(), std::nullopt);
}

TEST_F(Preferences, SettingAValueInAnUnreadableFileWritesThatValueAlone) {
  platform.root.write(kPreferencesFile, "not a property list");
  EXPECT_TRUE(wrangler->setPreferenceValue_forKey(true, "initialized"));
  EXPECT_EQ(stored(), (Dictionary{{"initialized", true}}));
}

TEST_F(Preferences, SettingAValueInAFileThatCannotBeReadForTheMomentLeavesItAsItIs) {
  store({{"a", 1}});
  platform.files.failPath("readFile", ".plist", EMFILE);
  EXPECT_TRUE(wrangler->setPreferenceValue_forKey(true, "initialized"));
  EXPECT_EQ(stored(), (Dictionary{{"a", 1}}));
  const std::string path = kPreferencesFile;
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("the preferences cannot be read: \"" + path + "\" : Too many open files",
                          "preferences were not saved: \"" + path + "\" : Too many open files"));
}

TEST_F(Preferences, WhereTheyCannotBeReadForTheMomentWhatIsBeingChangedIsPutBack) {
  store({{"a", 1}});
  platform.journal.startRequest();
  platform.journal.begin();
  platform.files.failPath("readFile", ".plist", EIO);
  EXPECT_FALSE(wrangler->getPreferenceValueForKey("a"));
  EXPECT_FALSE(platform.journal.end());
  platform.journal.finishRequest(false);
}

TEST_F(Preferences, WhatSomebodyElseHasWrittenSinceTheLastLookIsKeptAndReported) {
  store({{"a", 1}});
  ASSERT_TRUE(wrangler->loadPreferences());
  store({{"a", "by hand"}});
  EXPECT_TRUE(wrangler->savePreferences({{"a", 2}}));
  EXPECT_EQ(stored(), (Dictionary{{"a", "by hand"}}));
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("preferences were not saved: \"" + kPreferencesFile +
                          "\" : " + changedMeanwhile().description()));
}

TEST_F(Preferences, AFailedWriteIsASuccessWithAnErrorLineAndLeavesTheFile) {
  store({{"a", 1}});
  platform.files.fillDisk();
  EXPECT_TRUE(wrangler->savePreferences({{"a", 2}}));
  EXPECT_TRUE(wrangler->setPreferenceValue_forKey(3, "a"));
  EXPECT_EQ(stored(), (Dictionary{{"a", 1}}));
  const std::string error =
      "tessard_notification[E]: preferences were not saved: "
      "\"/Library/Preferences/com.velto.tessard_notification.plist\" : No space left on device";
  EXPECT_THAT(platform.log.lines(), ElementsAre(error, error));
}

TEST_F(Preferences, ADirectoryThatCannotBeMadeIsAFailedWrite) {
  platform.files.failAll("createDirectory", EROFS);
  EXPECT_TRUE(wrangler->savePreferences({{"a", 1}}));
  EXPECT_FALSE(platform.root.exists(kPreferencesFile));
  EXPECT_THAT(platform.log.lines(),
              ElementsAre("tessard_notification[E]: preferences were not saved: "
                          "\"/Library/Preferences/com.velto.tessard_notification.plist\" : "
                          "Read-only file system"));
}

TEST_F(Preferences, DefaultsAreGivenAlsoWhenTheyCannotBeSaved) {
  platform.files.fillDisk();
  const auto loaded = wrangler->loadPreferences();
  ASSERT_TRUE(loaded);
  expectDefaults(*loaded);
  EXPECT_FALSE(platform.root.exists(kPreferencesFile));
}

}  // namespace
}  // namespace tessard
