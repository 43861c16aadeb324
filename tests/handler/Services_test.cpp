// Listing and changing the client services, their account, and the certificate.

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

struct AccountRequests : ServiceRequests {
  const Dictionary calendar{{"service", "calendar"}};
  const Dictionary account{{"userName", "x"}, {"password", "y"}};
  AccountRequests() { notification->serviceAnswer = account; }
};

TEST_F(AccountRequests, GoToTheNotificationServiceAsTheyAreAndItsAnswerComesBack) {
  initialise();
  EXPECT_EQ(run("getServiceUser", calendar), account);
  EXPECT_THAT(notification->serviceRequests, ElementsAre(calendar));
  EXPECT_TRUE(handler->commandChangesState("getServiceUser"));
}

TEST_F(AccountRequests, AnswerNothingBeforeTheServiceDataIsThere) {
  EXPECT_EQ(run("getServiceUser", calendar), Dictionary{});
  EXPECT_THAT(notification->serviceRequests, IsEmpty());
}

TEST_F(AccountRequests, TryToMakeTheServiceData) {
  finishSetup();
  notification->ready = false;
  EXPECT_EQ(run("getServiceUser", calendar), account);
  EXPECT_TRUE(did("Notification initServiceData"));
}

TEST_F(AccountRequests, GiveNothingWhenTheServiceGivesNothingOrIsNotThere) {
  initialise();
  notification->serviceAnswer = std::nullopt;
  EXPECT_EQ(run("getServiceUser", calendar), (Dictionary{{"absent", true}}));
  handler->serviceWrangler()->setServiceAtoms({});
  EXPECT_EQ(run("getServiceUser", calendar), (Dictionary{{"absent", true}}));
}

TEST_F(AccountRequests, WithoutTheNameOfAServiceAreAnsweredToo) {
  initialise();
  const Dictionary unnamed{{"service", ""}};
  EXPECT_EQ(run("getServiceUser", {}), account);
  EXPECT_EQ(run("getServiceUser", unnamed), account);
  EXPECT_THAT(notification->serviceRequests, ElementsAre(Dictionary{}, unnamed));
}

TEST_F(AccountRequests, WithANameThatIsNoneAreRefusedWithTheReason) {
  initialise();
  for (const Value& name :
       std::vector<Value>{1, true, Array{"calendar"}, Dictionary{}, std::string("cal\0", 4), "cal\x1b",
                          "cal\xff", "a\nb", "a\x7f"}) {
    forget();
    EXPECT_EQ(run("getServiceUser", {{"service", name}}), handler->responseForError("INVALID_ARG_ERR"));
    EXPECT_THAT(platform.log.messages(kLogError),
                ElementsAre("service user refused: \"service\" must be a string without control characters"));
    EXPECT_THAT(journal, IsEmpty());
  }
}

struct CertificateRequests : ServiceRequests {
  const Dictionary chosen{{"certificateName", "push"}};
  CertificateRequests() { notification->serviceAnswer = chosen; }
};

TEST_F(CertificateRequests, GoToTheNotificationServiceWithoutTheGate) {
  EXPECT_EQ(run("setKorvsCertificate", chosen), chosen);
  EXPECT_EQ(run("setKorvsCertificate", {{"certificateName", ""}}), chosen);
  EXPECT_EQ(run("setKorvsCertificate", {}), chosen);
  EXPECT_THAT(notification->serviceRequests,
              ElementsAre(chosen, Dictionary{{"certificateName", ""}}, Dictionary{}));
  EXPECT_THAT(journal, ElementsAre("Notification setKorvsCertificate", "Notification setKorvsCertificate",
                                   "Notification setKorvsCertificate"));
  EXPECT_TRUE(handler->commandChangesState("setKorvsCertificate"));
}

TEST_F(CertificateRequests, GiveNothingWithoutANotificationService) {
  handler->serviceWrangler()->setServiceAtoms({});
  EXPECT_EQ(run("setKorvsCertificate", chosen), (Dictionary{{"absent", true}}));
}

TEST_F(CertificateRequests, WithANameThatIsNoneAreRefusedWithTheReason) {
  for (const Value& name :
       std::vector<Value>{1, true, Array{"push"}, Dictionary{}, "a\nb", "a\x01", "\xff"}) {
    forget();
    EXPECT_EQ(run("setKorvsCertificate", {{"certificateName", name}}),
              handler->responseForError("INVALID_ARG_ERR"));
    EXPECT_THAT(platform.log.messages(kLogError),
                ElementsAre("certificate refused: \"certificateName\" must be a string without control "
                            "characters"));
    EXPECT_THAT(journal, IsEmpty());
  }
}

}  // namespace
}  // namespace tessard
