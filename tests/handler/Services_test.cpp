// Listing and changing the client services.

#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct ServiceRequests : Handled {
  const Dictionary mail{{"command", "addService"}, {"service", "mail"}, {"hostName", "mail.example.com"}};

  Dictionary run(const char* command, const Dictionary& request) {
    const auto answer = handler->operationForCommand(command)(request);
    return answer ? *answer : Dictionary{{"absent", true}};
  }
};

TEST_F(ServiceRequests, ListWhatTheNotificationServiceHas) {
  initialise();
  notification->configuredServices = Array{"mail", "calendar"};
  jabber->configuredServices = Array{"of another service"};
  EXPECT_EQ(run("getConfiguredServices", {}),
            (Dictionary{{"configuredServices", Array{"mail", "calendar"}}}));
}

TEST_F(ServiceRequests, ListNothingBeforeTheServiceDataIsThere) {
  notification->configuredServices = Array{"mail"};
  EXPECT_EQ(run("getConfiguredServices", {}), Dictionary{});
}

TEST_F(ServiceRequests, ListingTriesToMakeTheServiceData) {
  finishSetup();
  notification->ready = false;
  notification->configuredServices = Array{"mail"};
  EXPECT_EQ(run("getConfiguredServices", {}), (Dictionary{{"configuredServices", Array{"mail"}}}));
  EXPECT_TRUE(did("Notification initServiceData"));
}

TEST_F(ServiceRequests, ListNothingWhenThereIsNoListOrNoService) {
  initialise();
  EXPECT_EQ(run("getConfiguredServices", {}), Dictionary{});
  handler->serviceWrangler()->setServiceAtoms({});
  EXPECT_EQ(run("getConfiguredServices", {}), Dictionary{});
}

TEST_F(ServiceRequests, ChangesGoToTheNotificationServiceAsTheyAreAndItsAnswerComesBack) {
  notification->serviceAnswer = Dictionary{{"configuredServices", Array{"x"}}};
  EXPECT_EQ(run("addService", mail), *notification->serviceAnswer);
  EXPECT_EQ(run("removeService", mail), *notification->serviceAnswer);
  EXPECT_THAT(notification->serviceRequests, ElementsAre(mail, mail));
  // Not even the service data is asked for.
  EXPECT_THAT(journal, ElementsAre("Notification addService", "Notification removeService"));
}

TEST_F(ServiceRequests, ChangesWithoutServiceOrHostAreRefusedWithTheReason) {
  for (const char* command : {"addService", "removeService"}) {
    platform.log.clear();
    EXPECT_EQ(run(command, {{"service", "mail"}}), handler->responseForError("INVALID_ARG_ERR"));
    EXPECT_THAT(platform.log.messages(kLogError),
                ElementsAre("client service refused: \"hostName\" must be a string that is not empty"));
  }
  EXPECT_THAT(journal, IsEmpty());
  EXPECT_THAT(platform.files.changes(), IsEmpty());
}

TEST_F(ServiceRequests, ChangesWithoutANotificationServiceGiveNothing) {
  handler->serviceWrangler()->setServiceAtoms({});
  EXPECT_EQ(run("addService", mail), (Dictionary{{"absent", true}}));
  EXPECT_EQ(run("removeService", mail), (Dictionary{{"absent", true}}));
}

}  // namespace
}  // namespace tessard
