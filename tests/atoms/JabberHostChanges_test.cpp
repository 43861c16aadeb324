#include "tests/atoms/AtomFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class JabberHostChanges : public JabberTest {
 protected:
  void SetUp() override {
    load({.c2s = "<local><id>old.example.com</id><id>other.example.com</id>"
                 "<pemfile>/key.pem</pemfile><cachain>/ca.pem</cachain></local>",
          .sm = "<velto_notification_component_addr>pubsub.old.example.com"
                "</velto_notification_component_addr>",
          .router = "<filter_muc_messages_from>rooms.old.example.com</filter_muc_messages_from>"});
    platform.tasks.on("/usr/sbin/keywarden", {0, "geheim\n", ""});
    before = text();
  }

  static NetworkChangeContext changeTo(const std::optional<std::string>& newHost, bool changed = true,
                                       bool valid = true) {
    Dictionary fields{{"hasHostChanged", changed}, {"hasValidNetworkConfiguration", valid}};
    if (newHost) fields.set("newHost", *newHost);
    return NetworkChangeContext::fromEvent(fields);
  }
  static NetworkChangeContext addressChange(const std::optional<std::string>& oldHost,
                                            const std::optional<std::string>& newHost) {
    Dictionary fields;
    if (oldHost) fields.set("oldHost", *oldHost);
    if (newHost) fields.set("newHost", *newHost);
    return NetworkChangeContext::fromEvent(fields);
  }

  /// All documents as they would be saved.
  std::string text() const {
    std::string all;
    for (const char* name : {"c2s", "s2s", "sm", "router"}) {
      all += owner.master->defaultComponentForName(name)->configXMLDocument()->serialize().value();
    }
    return all;
  }
  std::string before;
};

TEST_F(JabberHostChanges, SetTheNewHostInTwoPlacesWithoutPrefix) {
  atom->handleNetworkChanged(changeTo("new.example.com"));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("new.example.com"));
  EXPECT_THAT(allAt("sm.velto_notification_component_addr"), ElementsAre("new.example.com"));
  EXPECT_EQ(liveAt("router.filter_muc_messages_from"), "rooms.old.example.com");
  EXPECT_THAT(platform.log.messages(),
              ElementsAre(RecordingLog::Message{
                  kLogDebug, "updating configuration for network change: new host=\"new.example.com\""}));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(owner.saved, IsEmpty());
  EXPECT_THAT(platform.tasks.calls, IsEmpty());
}

TEST_F(JabberHostChanges, TakeTheCurrentHostWhenTheChangeNamesNone) {
  atom->handleNetworkChanged(changeTo(std::nullopt));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("chat.example.com"));
  EXPECT_THAT(allAt("sm.velto_notification_component_addr"), ElementsAre("chat.example.com"));
  EXPECT_TRUE(debugged("updating configuration for network change: new host=\"chat.example.com\""));
}

TEST_F(JabberHostChanges, DoNothingWithoutAHostName) {
  owner.hostDomain.reset();
  atom->handleNetworkChanged(changeTo("new.example.com"));
  EXPECT_EQ(text(), before);
  EXPECT_THAT(platform.log.messages(kLogDebug),
              ElementsAre("Network change left us with no valid DNS hostname.  No action taken."));
}

TEST_F(JabberHostChanges, DoNothingForALocalHostName) {
  owner.hostDomain = "mac.local";
  atom->handleNetworkChanged(changeTo("new.example.com"));
  EXPECT_EQ(text(), before);
  EXPECT_THAT(platform.log.messages(kLogDebug),
              ElementsAre("Network change left us with a .local hostname.  No action taken."));
}

TEST_F(JabberHostChanges, TakeOnlyTheEndOfANameForLocal) {
  owner.hostDomain = "mac.local.example.com";
  atom->handleNetworkChanged(changeTo(std::nullopt));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("mac.local.example.com"));
}

TEST_F(JabberHostChanges, StaySilentWhenTheHostHasNotChangedOrTheNetworkIsNotValid) {
  atom->handleNetworkChanged(changeTo("new.example.com", false, true));
  atom->handleNetworkChanged(changeTo("new.example.com", true, false));
  atom->handleNetworkChanged(changeTo("new.example.com", false, false));
  EXPECT_EQ(text(), before);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
}

TEST_F(JabberHostChanges, ReplaceTheOldHostAmongTheDomainsAfterAnAddressChange) {
  atom->handleChangeIPRequest(addressChange("old.example.com", "new.example.com"));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("new.example.com", "other.example.com"));
  EXPECT_EQ(liveAt("sm.velto_notification_component_addr"), "pubsub.new.example.com");
  EXPECT_EQ(liveAt("router.filter_muc_messages_from"), "rooms.new.example.com");
}

TEST_F(JabberHostChanges, NameThePlacesAfterTheFirstDomainWhicheverWasReplaced) {
  atom->handleChangeIPRequest(addressChange("other.example.com", "new.example.com"));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("old.example.com", "new.example.com"));
  EXPECT_EQ(liveAt("sm.velto_notification_component_addr"), "pubsub.old.example.com");
  EXPECT_EQ(liveAt("router.filter_muc_messages_from"), "rooms.old.example.com");
}

TEST_F(JabberHostChanges, ReplaceEveryDomainThatIsTheOldHost) {
  load({.c2s = "<local><id>x</id><id>old.example.com</id><id>old.example.com</id></local>"});
  atom->handleChangeIPRequest(addressChange("old.example.com", "new.example.com"));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("x", "new.example.com", "new.example.com"));
}

TEST_F(JabberHostChanges, PutTheTLSAttributesOnTheNewDomains) {
  atom->handleChangeIPRequest(addressChange("old.example.com", "new.example.com"));
  for (const std::size_t domain : {0U, 1U}) {
    EXPECT_THAT(attributesAt("c2s.local.id", domain),
                ElementsAre(Pair("require-starttls", "true"), Pair("pemfile", "/key.pem"),
                            Pair("private-key-password", "geheim"), Pair("cachain", "/ca.pem")));
  }
  EXPECT_TRUE(debugged("set-xml: start-tls = [ENABLED]"));
}

TEST_F(JabberHostChanges, PutNoTLSAttributesOnTheNewDomainsWithoutAKeyFile) {
  load({.c2s = "<local><id>old.example.com</id><!--<pemfile>/key.pem</pemfile>--></local>"});
  atom->handleChangeIPRequest(addressChange("old.example.com", "new.example.com"));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("new.example.com"));
  EXPECT_THAT(attributesAt("c2s.local.id"), IsEmpty());
  EXPECT_TRUE(debugged("set-xml: start-tls = [DISABLED]"));
}

TEST_F(JabberHostChanges, TakeTheDomainsOfThePreferencesWhenNoneIsLive) {
  load({.c2s = "<local><!--<id>off</id>--></local>"});
  owner.preferences = Dictionary{{"hosts", Array{"old.example.com"}}};
  atom->handleChangeIPRequest(addressChange("old.example.com", "new.example.com"));
  EXPECT_THAT(allAt("c2s.local.id"), ElementsAre("new.example.com"));
}

TEST_F(JabberHostChanges, ChangeNothingWhenTheOldHostIsNotServed) {
  atom->handleChangeIPRequest(addressChange("unknown.example.com", "new.example.com"));
  atom->handleChangeIPRequest(addressChange("OLD.example.com", "new.example.com"));
  atom->handleChangeIPRequest(addressChange("example.com", "new.example.com"));
  atom->handleChangeIPRequest(addressChange(std::nullopt, "new.example.com"));
  EXPECT_EQ(text(), before);
  EXPECT_THAT(platform.log.messages(), IsEmpty());
  EXPECT_THAT(platform.tasks.calls, IsEmpty()) << "not even the TLS attributes";
}

TEST_F(JabberHostChanges, ChangeNothingWithoutDomains) {
  load({});
  before = text();
  atom->handleChangeIPRequest(addressChange("old.example.com", "new.example.com"));
  EXPECT_EQ(text(), before);
}

TEST_F(JabberHostChanges, RefuseAnAddressChangeWithoutANewName) {
  atom->handleChangeIPRequest(addressChange("old.example.com", std::nullopt));
  EXPECT_EQ(text(), before);
  EXPECT_THAT(platform.log.lines(),
              ElementsAre(whole("E", "no new name for \"old.example.com\": nothing was changed")));
}

TEST_F(JabberHostChanges, SaveNothing) {
  atom->handleChangeIPRequest(addressChange("old.example.com", "new.example.com"));
  EXPECT_THAT(platform.files.changes(), IsEmpty());
  EXPECT_THAT(owner.saved, IsEmpty());
}

}  // namespace
}  // namespace tessard
