// Reading logs and listing them.

#include "tests/handler/HandlerFixtures.h"

namespace tessard {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct LogRequests : Handled {
  LogRequests() {
    jabber->logPaths = Dictionary{{"JABBER_LOG", "/var/log/system.log"}, {"MUC_STD_LOG", "/var/log/muc.log"}};
    notification->logPaths = Dictionary{{"PUBSUB_ERROR_LOG", "/var/log/error.log"}};
    platform.root.write("/var/log/system.log",
                        "jabberd_notification/sm[1]: a\nkernel: b\njabberd/sm[2]: c\n");
    platform.root.write("/var/log/muc.log", "Rooms: a\nother: b\n");
    platform.root.write("/var/log/error.log", "a\nb\n");
  }

  Dictionary tail(const Dictionary& request) {
    const auto answer = handler->operationForCommand("tailFile")(request);
    return answer ? *answer : Dictionary{{"absent", true}};
  }
  std::vector<std::string> linesOf(const Dictionary& request) {
    const Dictionary answer = tail(request);
    const Array* lines = answer.arrayFor("lines");
    return lines ? stringsOf(*lines) : std::vector<std::string>{"no lines"};
  }
  /// The filters that the last read was made with.
  std::vector<std::string> filters() const { return platform.logs.queries.back().filters; }

  Dictionary paths() { return *handler->operationForCommand("getLogPaths")({}); }
};

TEST_F(LogRequests, ShowOfTheSystemLogWhatTheInstanceSays) {
  EXPECT_THAT(linesOf({{"identifier", "JABBER_LOG"}}), ElementsAre("jabberd_notification/sm[1]: a"));
  EXPECT_THAT(filters(), ElementsAre("_notification"));
}

TEST_F(LogRequests, ShowOfTheRoomsLogWhatTheRoomsSay) {
  EXPECT_THAT(linesOf({{"identifier", "MUC_STD_LOG"}}), ElementsAre("Rooms: a"));
  EXPECT_THAT(filters(), ElementsAre("Rooms"));
}

TEST_F(LogRequests, KeepTheFiltersThatAreGiven) {
  linesOf({{"identifier", "JABBER_LOG"}, {"withFilters", Array{"x", "y"}}});
  EXPECT_THAT(filters(), ElementsAre("x", "y", "_notification"));
  linesOf({{"identifier", "MUC_STD_LOG"}, {"withFilters", Array{"_notification"}}});
  EXPECT_THAT(filters(), ElementsAre("_notification", "Rooms"));
}

TEST_F(LogRequests, AddNoFilterASecondTime) {
  linesOf({{"identifier", "JABBER_LOG"}, {"withFilters", Array{"_notification", "x"}}});
  EXPECT_THAT(filters(), ElementsAre("_notification", "x"));
}

TEST_F(LogRequests, PutAListInThePlaceOfFiltersThatAreNone) {
  linesOf({{"identifier", "MUC_STD_LOG"}, {"withFilters", "a"}});
  EXPECT_THAT(filters(), ElementsAre("Rooms"));
}

TEST_F(LogRequests, LeaveFiltersOfOtherLogsAsTheyAre) {
  EXPECT_THAT(linesOf({{"identifier", "PUBSUB_ERROR_LOG"}}), ElementsAre("a", "b"));
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_THAT(linesOf({{"identifier", "PUBSUB_ERROR_LOG"}, {"withFilters", Array{"b"}}}), ElementsAre("b"));
  EXPECT_EQ(tail({{"identifier", "PUBSUB_ERROR_LOG"}, {"withFilters", "b"}}),
            handler->responseForError("INVALID_ARG_ERR"));
}

TEST_F(LogRequests, HandEverythingElseOfTheRequestOn) {
  const Dictionary answer = tail({{"identifier", "JABBER_LOG"}, {"lines", 7}, {"bytes", 700}});
  EXPECT_EQ(platform.logs.queries.back().lines, 7U);
  EXPECT_EQ(platform.logs.queries.back().bytes, 700U);
  tail({{"identifier", "JABBER_LOG"}, {"position", *answer.stringFor("position")}});
  EXPECT_EQ(platform.logs.queries.back().position, *answer.stringFor("position"));
}

TEST_F(LogRequests, RefuseFiltersThatAreNoStringsBesideTheirOwn) {
  EXPECT_EQ(tail({{"identifier", "JABBER_LOG"}, {"withFilters", Array{1}}}),
            handler->responseForError("INVALID_ARG_ERR"));
  EXPECT_THAT(platform.logs.queries, IsEmpty());
}

TEST_F(LogRequests, FindLogsOfAllServicesAndNoOthers) {
  EXPECT_EQ(tail({{"identifier", "CHAT_LOG"}}), handler->responseForError("INVALID_ARG_ERR"));
  EXPECT_EQ(tail({{"identifier", "../JABBER_LOG"}}), handler->responseForError("INVALID_ARG_ERR"));
  EXPECT_EQ(tail({{"identifier", 1}}), handler->responseForError("INVALID_ARG_ERR"));
  EXPECT_EQ(tail({}), handler->responseForError("INVALID_ARG_ERR"));
  handler->serviceWrangler()->setServiceAtoms({});
  EXPECT_EQ(tail({{"identifier", "JABBER_LOG"}}), handler->responseForError("INVALID_ARG_ERR"));
  EXPECT_THAT(platform.logs.queries, IsEmpty());
}

TEST_F(LogRequests, NeedNoServiceDataToReadALog) {
  tail({{"identifier", "JABBER_LOG"}});
  EXPECT_THAT(journal, IsEmpty());
  EXPECT_FALSE(handler->commandChangesState("tailFile"));
}

TEST_F(LogRequests, ListThePathsOfTheNotificationServiceAlone) {
  initialise();
  EXPECT_EQ(paths(), *notification->logPaths);
  EXPECT_FALSE(handler->commandChangesState("getLogPaths"));
}

TEST_F(LogRequests, ListNoPathsBeforeTheServiceDataIsThereAndDoNotTryToMakeIt) {
  finishSetup();
  EXPECT_EQ(paths(), Dictionary{});
  EXPECT_FALSE(did("Notification initServiceData"));
}

TEST_F(LogRequests, AreAnErrorWhenTheServiceHasNoPaths) {
  initialise();
  notification->logPaths = std::nullopt;
  EXPECT_EQ(paths(), handler->responseForError("CANNOT_STAT_ERR"));
}

TEST_F(LogRequests, AreAnErrorWhenThereIsNoService) {
  initialise();
  Wrangler::Atoms atoms;
  atoms.push_back(std::make_unique<RecordingAtom>(platform, "jabberd", handler->serviceWrangler(), journal));
  handler->serviceWrangler()->setServiceAtoms(std::move(atoms));
  EXPECT_EQ(paths(), handler->responseForError("CANNOT_STAT_ERR"));
}

}  // namespace
}  // namespace tessard
