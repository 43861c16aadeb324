#include <poll.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <map>

#include "common/Format.h"
#include "host/JsonCodec.h"
#include "host/ctl/CtlVerbGroups.h"

namespace tessard {

namespace {

constexpr const char* kUsualLog = "JABBER_LOG";
constexpr int kPollMilliseconds = 1000;

void endAtOnce(int /*signal*/) {
  _exit(EX_OK);
}

// Ends the process in good order when the person or the reader has enough. Signals wait while something is
// written, so that no line is left half.
class Following {
 public:
  Following() {
    struct sigaction end {};
    end.sa_handler = endAtOnce;
    sigaction(SIGINT, &end, nullptr);
    sigaction(SIGTERM, &end, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): it cannot fail for this signal
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
  }

  // False when it could not be written, mostly because nobody reads any more.
  template <class Write>
  bool write(Write write) {
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
    write();
    errno = 0;
    const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    hasReader_ = written || errno == EPIPE ? written : true;
    sigprocmask(SIG_UNBLOCK, &signals_, nullptr);
    return written;
  }

  // Until the next look at the log; false when nobody reads any more.
  bool pause() {
    pollfd watched{STDOUT_FILENO, 0, 0};
    hasReader_ = poll(&watched, 1, kPollMilliseconds) <= 0 || (watched.revents & POLLERR) == 0;
    return hasReader_;
  }

  // Without one nothing more is written, not even at the end of the process.
  bool hasReader() const { return hasReader_; }

 private:
  sigset_t signals_{};
  bool hasReader_ = true;
};

// What the answer leaves out, for a person; nothing for what was asked for.
void tellGap(const CtlCall& call, const Dictionary& answer) {
  static const std::map<std::string, std::string> sentences = {
      {"bytes", "Older lines are left out; the answer would be too large."},
      {"search", "Only the end of the log was looked through, as it is very large."},
      {"unreadable", "An older file of the log cannot be read."},
      {"lost", "The log was rotated meanwhile; lines may be missing here."},
  };
  const auto found = sentences.find(textFor(answer, "reason", ""));
  if (found != sentences.end()) call.output().message("warning", found->second);
}

void printLines(const CtlCall& call, const Dictionary& answer) {
  const Array* lines = answer.arrayFor("lines");
  if (!lines) return;
  for (const Value& line : *lines) call.output().line(readable(line));
}

int followLog(CtlCall& call, Dictionary request) {
  Following following;
  bool goesOn = true;
  while (goesOn) {
    bool more = false;
    const int exitCode = call.send(request, [&](const Dictionary& answer) {
      tellGap(call, answer);
      const Array* lines = answer.arrayFor("lines");
      if (lines && !lines->empty()) {
        goesOn = following.write([&] {
          if (call.output().json()) {
            call.output().record(answer);
          } else {
            printLines(call, answer);
          }
        });
      }
      request.remove("lines");
      request.set("position", textFor(answer, "position", ""));
      const Value* waits = answer.find("more");
      more = waits && waits->boolValue();
      return EX_OK;
    });
    if (exitCode != EX_OK) return exitCode;
    if (goesOn && !more) goesOn = following.pause();
  }
  if (!following.hasReader()) _exit(EX_OK);
  return EX_OK;
}

int listLogs(CtlCall& call) {
  return call.send({{"command", "getLogPaths"}}, [&](const Dictionary& answer) {
    return answer.empty() ? call.beforeSetup("There are no logs yet") : call.printEntries(answer);
  });
}

}  // namespace

int runLog(CtlCall& call) {
  const CtlArguments& arguments = call.arguments();
  if (arguments.words.size() > 2) return call.usage("\"log\" takes one IDENTIFIER at most.");
  if (arguments.list) {
    const bool alone =
        arguments.words.size() == 1 && !arguments.lines && arguments.filters.empty() && !arguments.follow;
    return alone ? listLogs(call) : call.usage("--list stands alone.");
  }
  Dictionary request = {{"command", "tailFile"},
                        {"identifier", arguments.words.size() > 1 ? arguments.words[1] : kUsualLog}};
  if (arguments.lines) request.set("lines", *arguments.lines);
  if (!arguments.filters.empty()) request.set("withFilters", arrayOf(arguments.filters));
  if (arguments.follow) return followLog(call, std::move(request));
  return call.send(std::move(request), [&](const Dictionary& answer) {
    tellGap(call, answer);
    if (call.output().json()) {
      call.output().document(answer);
    } else {
      printLines(call, answer);
    }
    return EX_OK;
  });
}

}  // namespace tessard
