#include "tests/atoms/NotificationFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kFile = "/Library/Preferences/com.velto.tessard_notification.plist";

class NotificationServices : public NotificationTest {
 protected:
  NotificationServices() {
    owner.onLoad = [this](const Dictionary& preferences) {
      if (!platform.root.exists(kFile)) {
        platform.root.write(kFile, serializePropertyList(preferences).value());
      }
    };
  }

  void keep(const Array& services) {
    platform.root.write(
        kFile, serializePropertyList(Dictionary{{"initialized", true}, {"services", services}}).value());
    platform.files.clearCalls();
  }

  static Dictionary entry(const std::string& service, const std::string& host) {
    return {{"service", service}, {"hostName", host}};
  }
  static Dictionary request(const std::string& command, const Dictionary& entry) {
    return with({{"command", command}},
                {{"service", *entry.find("service")}, {"hostName", *entry.find("hostName")}});
  }

  Array add(const Dictionary& entry) {
    return answered(atom->addServiceWithRequest(request("addService", entry)));
  }
  Array remove(const std::string& service, const std::string& host) {
    return answered(atom->removeServiceWithRequest(request("removeService", entry(service, host))));
  }
  static Array answered(const std::optional<Dictionary>& answer) {
    const Array* services = answer && answer->size() == 1 ? answer->arrayFor("configuredServices") : nullptr;
    return services ? *services : Array{"no such answer"};
  }

  void network(std::map<std::string, std::vector<std::string>> addresses) {
    platform.network.addresses.insert(addresses.begin(), addresses.end());
    if (!addresses.contains("localhost")) platform.network.addresses["localhost"] = {"127.0.0.1"};
  }

  Array kept() {
    const Dictionary file = listAt(kBundleConfigFilePath);
    return file.arrayFor("services") ? *file.arrayFor("services") : Array{"no list"};
  }
};

TEST_F(NotificationServices, AreAnEmptyListWithoutAFileOrAList) {
  EXPECT_EQ(atom->getConfiguredServices(), Array{});
  platform.root.write(kFile, serializePropertyList(Dictionary{{"initialized", true}}).value());
  EXPECT_EQ(atom->getConfiguredServices(), Array{});
  platform.root.write(kFile, serializePropertyList(Dictionary{{"services", "none"}}).value());
  EXPECT_EQ(atom->getConfiguredServices(), Array{});
  platform.root.write(kFile, "rubbish");
  EXPECT_EQ(atom->getConfiguredServices(), Array{});
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(NotificationServices, AreTheListOfTheFile) {
  keep({entry("mail", "a"), entry("calendar", "b")});
  EXPECT_EQ(atom->getConfiguredServices(), (Array{entry("mail", "a"), entry("calendar", "b")}));
}

TEST_F(NotificationServices, AreAddedAtTheEndWithoutTheCommand) {
  keep({entry("mail", "a")});
  const Array expected{entry("mail", "a"), entry("calendar", "b")};
  EXPECT_EQ(add(entry("calendar", "b")), expected);
  EXPECT_EQ(kept(), expected);
  EXPECT_EQ(*listAt(kBundleConfigFilePath).find("initialized"), Value(true));
  EXPECT_THAT(platform.root.read(kFile), testing::Not(HasSubstr("command")));
}

TEST_F(NotificationServices, KeepEverythingElseOfTheRequest) {
  const auto answer = atom->addServiceWithRequest(
      {{"service", "mail"}, {"command", "addService"}, {"hostName", "a"}, {"ports", Array{1, 2}}});
  const Array expected{Dictionary{{"service", "mail"}, {"hostName", "a"}, {"ports", Array{1, 2}}}};
  EXPECT_EQ(answered(answer), expected);
  EXPECT_EQ(kept(), expected);
}

TEST_F(NotificationServices, ThatAreAddedTwiceAreThereOnce) {
  add(entry("mail", "a"));
  platform.files.clearCalls();
  EXPECT_EQ(add(entry("mail", "a")), Array{entry("mail", "a")});
  EXPECT_TRUE(debugged("request to add a duplicate entry into configuredServices, ignoring"));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_EQ(kept(), Array{entry("mail", "a")});
}

TEST_F(NotificationServices, ThatDifferInAnythingAreTwo) {
  add(entry("mail", "a"));
  const auto answer = atom->addServiceWithRequest(with(entry("mail", "a"), {{"port", 1}}));
  EXPECT_EQ(answered(answer).size(), 2U);
}

TEST_F(NotificationServices, TheFileIsForTheAdministratorAlone) {
  add(entry("mail", "a"));
  const auto asked = ownershipsAsked("createFile", kFile + ".tmp");
  ASSERT_EQ(asked.size(), 1U);
  EXPECT_EQ(asked[0].permissions, 0600U);
  EXPECT_EQ(platform.root.mode(kFile), 0600U);
}

TEST_F(NotificationServices, ANewFileBeginsWithTheDefaultsOfThePreferences) {
  owner.preferences = Dictionary{{"initialized", false}, {"jabberdS2SPort", 5268}};
  EXPECT_EQ(add(entry("mail", "a")), Array{entry("mail", "a")});
  EXPECT_EQ(listAt(kBundleConfigFilePath),
            with(*owner.preferences, {{"services", Array{entry("mail", "a")}}}));
}

TEST_F(NotificationServices, WithoutDefaultsNoFileIsMade) {
  owner.preferences.reset();
  EXPECT_EQ(add(entry("mail", "a")), Array{});
  EXPECT_EQ(remove("mail", "a"), Array{});
  EXPECT_FALSE(platform.root.exists(kFile));
  const std::string error = "client services cannot be changed before the host name is known";
  EXPECT_THAT(platform.log.messages(kLogError), ElementsAre(error, error));
}

TEST_F(NotificationServices, AFileThatCannotBeLookedAtIsNotTakenForMissing) {
  keep({entry("mail", "a")});
  owner.preferences.reset();
  platform.files.failPath("attributes", kFile, EIO);
  EXPECT_EQ(add(entry("calendar", "b")), Array{});
  EXPECT_THAT(platform.log.messages(kLogError),
              ElementsAre("client services cannot be changed: \"" + kFile + "\" : Input/output error"));
  platform.files.heal();
  EXPECT_EQ(kept(), Array{entry("mail", "a")});
}

TEST_F(NotificationServices, AFileThatCannotBeReadStaysAsItIs) {
  platform.root.write(kFile, "rubbish");
  EXPECT_EQ(add(entry("mail", "a")), Array{});
  EXPECT_EQ(remove("mail", "a"), Array{});
  EXPECT_EQ(platform.root.read(kFile), "rubbish");
  EXPECT_THAT(platform.log.messages(kLogError),
              testing::Each(StartsWith("client services cannot be changed: \"" + kFile + "\" : ")));
}

TEST_F(NotificationServices, AFailedWriteIsAnErrorLineAndTheOldListStays) {
  keep({entry("mail", "a")});
  platform.files.fillDisk();
  EXPECT_EQ(add(entry("calendar", "b")).size(), 2U);
  EXPECT_EQ(remove("mail", "a"), Array{});
  const std::string error = "client services were not saved: \"" + kFile + "\" : No space left on device";
  EXPECT_THAT(platform.log.messages(kLogError), ElementsAre(error, error));
  EXPECT_EQ(kept(), Array{entry("mail", "a")});
}

// --- Removing ---

TEST_F(NotificationServices, AreRemovedByServiceAndHost) {
  keep({entry("mail", "a"), entry("calendar", "a"), entry("mail", "b"), entry("mail", "a")});
  const Array left{entry("calendar", "a"), entry("mail", "b")};
  EXPECT_EQ(remove("mail", "a"), left);
  EXPECT_EQ(kept(), left);
}

TEST_F(NotificationServices, AreRemovedWhateverElseTheEntryHolds) {
  keep({with(entry("mail", "a"), {{"port", 1}}), entry("mail", "a")});
  EXPECT_EQ(remove("mail", "a"), Array{});
}

TEST_F(NotificationServices, AreRemovedUnderEveryNameOfTheHost) {
  network({{"a", {"10.0.0.1"}}, {"alias", {"10.0.0.9", "10.0.0.1"}}, {"other", {"10.0.0.2"}}});
  keep({entry("mail", "a"), entry("mail", "alias"), entry("mail", "other"), entry("calendar", "a")});
  EXPECT_EQ(remove("mail", "alias"), (Array{entry("mail", "other"), entry("calendar", "a")}));
}

TEST_F(NotificationServices, OfThisHostAreRemovedUnderItsOtherNames) {
  // The requested name shares one address with this host, and this host another one with the entry.
  network(
      {{"chat.example.com", {"10.0.0.1", "10.0.0.2"}}, {"short", {"10.0.0.1"}}, {"second", {"10.0.0.2"}}});
  keep({entry("mail", "second"), entry("mail", "localhost"), entry("mail", "elsewhere")});
  EXPECT_EQ(remove("mail", "short"), (Array{entry("mail", "elsewhere")}));
}

TEST_F(NotificationServices, OfThisHostAreRemovedByItsNameWhenItDoesNotResolve) {
  network({{"localhost", {"127.0.0.1"}}});
  keep({entry("mail", "localhost"), entry("mail", "Chat.Example.com"), entry("mail", "b")});
  EXPECT_EQ(remove("mail", "chat.example.com"), Array{entry("mail", "b")});
}

TEST_F(NotificationServices, WithoutANameOfThisHostAreComparedWithTheRequestedOneAlone) {
  owner.hostDomain.reset();
  network({{"short", {"10.0.0.1"}}, {"localhost", {"127.0.0.1"}}});
  keep({entry("mail", "short"), entry("mail", "localhost")});
  EXPECT_EQ(remove("mail", "short"), Array{entry("mail", "localhost")});
}

TEST_F(NotificationServices, ThatAreNotThereAreWrittenAsTheyWere) {
  keep({entry("mail", "a")});
  EXPECT_EQ(remove("calendar", "a"), Array{entry("mail", "a")});
  EXPECT_THAT(platform.files.calls("exchange"), testing::SizeIs(1));
  EXPECT_EQ(kept(), Array{entry("mail", "a")});
}

TEST_F(NotificationServices, RemovingWithoutAFileMakesAnEmptyList) {
  EXPECT_EQ(remove("mail", "a"), Array{});
  EXPECT_EQ(kept(), Array{});
}

TEST_F(NotificationServices, EntriesOfAnotherFormStay) {
  const Array odd{"text", Dictionary{{"service", "mail"}}, Dictionary{{"hostName", "a"}},
                  Dictionary{{"service", "mail"}, {"hostName", 1}}};
  keep(odd);
  EXPECT_EQ(remove("mail", "a"), odd);
}

TEST_F(NotificationServices, ARequestWithoutServiceOrHostRemovesNothing) {
  keep({entry("mail", "a"), Dictionary{{"service", "mail"}}});
  EXPECT_EQ(answered(atom->removeServiceWithRequest({{"service", "mail"}})).size(), 2U);
  EXPECT_EQ(answered(atom->removeServiceWithRequest({{"hostName", "a"}})).size(), 2U);
}

TEST_F(NotificationServices, HostsThatCannotBeLookedUpInTimeStayAndThatIsTold) {
  network({{"a", {"10.0.0.1"}}, {"b", {"10.0.0.1"}}, {"c", {"10.0.0.1"}}});
  keep({entry("mail", "b"), entry("mail", "c")});
  platform.network.afterLookup = [this] { platform.clock.advance(8); };
  EXPECT_EQ(remove("mail", "a"), Array{entry("mail", "c")});
  EXPECT_THAT(shown(), ElementsAre("not every host of the service \"mail\" could be looked up in time; those "
                                   "left stay configured"));
}

// --- Very many ---

TEST_F(NotificationServices, TenThousandAreAddedToListedAndRemovedFrom) {
  constexpr std::size_t kMany = 10000;
  Array many;
  for (std::size_t i = 0; i < kMany; ++i) {
    const std::string host = "host" + std::to_string(i) + ".department.example.com";
    many.emplace_back(entry("calendar", host));
    platform.network.addresses[host] = {"10.0.0." + std::to_string(i % 250)};
  }
  network({{"new.example.com", {"10.0.0.7"}}});
  keep(many);
  ASSERT_GT(platform.root.read(kFile).size(), kPropertyListSizeLimit);
  EXPECT_EQ(add(entry("calendar", "new.example.com")).size(), kMany + 1);
  EXPECT_EQ(atom->getConfiguredServices()->size(), kMany + 1);
  platform.network.lookups.clear();
  EXPECT_EQ(remove("calendar", "new.example.com").size(), kMany - kMany / 250);
  EXPECT_EQ(kept().size(), kMany - kMany / 250);
  // Once each: the requested host, this one, and every entry's.
  EXPECT_EQ(platform.network.lookups.size(), kMany + 2);
  EXPECT_THAT(shown(), IsEmpty());
}

}  // namespace
}  // namespace tessard
