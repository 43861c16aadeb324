#include "platform/accounts/AccountProgram.h"

#include <cerrno>
#include <utility>

#include "common/Format.h"
#include "common/Text.h"
#include "common/Utf8.h"

namespace tessard {

namespace {

constexpr const char* kProgram = "/usr/libexec/tessardd/change_accounts";

// What a program said before its end, which for a failed assertion is what was asserted.
std::string lastLineOf(const std::string& text) {
  const std::string said(trimmed(text, "\r\n "));
  return isUtf8(said) ? said.substr(said.rfind('\n') + 1) : std::string();
}

}  // namespace

AccountProgram::AccountProgram(Tasks& tasks, std::chrono::milliseconds patience)
    : tasks_(tasks), patience_(patience) {}

Result<void> AccountProgram::addUser(const NewUser& user) {
  return make({.kind = AccountRequest::Kind::addUser, .user = user});
}

Result<void> AccountProgram::setPasswordHash(const std::string& user, const std::string& hash) {
  return make({.kind = AccountRequest::Kind::setPasswordHash, .user = {.name = user}, .hash = hash});
}

Result<void> AccountProgram::addMember(const std::string& group, const std::string& user) {
  return make({.kind = AccountRequest::Kind::addMember, .user = {.name = user}, .group = group});
}

Result<void> AccountProgram::make(AccountRequest request) {
  request.patience = patience_;
  const auto text = textOf(request);
  if (!text) return text.error();
  const TaskResult ended = tasks_.launch_task_with_input(kProgram, {}, text.value());
  auto answer = accountAnswerIn(ended.output);
  // Without an answer the end alone tells of success.
  if (answer && (ended.status == 0 || !*answer)) return *answer;
  return SystemError(EIO, fill("the accounts could not be changed, as \"%@\" has ended with status %d: %@",
                               {kProgram, ended.status, lastLineOf(ended.errorText)}));
}

}  // namespace tessard
