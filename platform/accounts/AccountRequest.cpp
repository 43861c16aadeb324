#include "platform/accounts/AccountRequest.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <utility>

#include "common/Format.h"
#include "common/PropertyList.h"

namespace tessard {

namespace {

constexpr std::array<std::pair<AccountRequest::Kind, std::string_view>, 3> kKinds = {
    {{AccountRequest::Kind::addUser, "addUser"},
     {AccountRequest::Kind::setPasswordHash, "setPasswordHash"},
     {AccountRequest::Kind::addMember, "addMember"}}};

std::string nameOf(AccountRequest::Kind kind) {
  for (const auto& [known, name] : kKinds) {
    if (known == kind) return std::string(name);
  }
  return {};
}

std::optional<AccountRequest::Kind> kindNamed(const std::string* name) {
  for (const auto& [kind, known] : kKinds) {
    if (name && known == *name) return kind;
  }
  return std::nullopt;
}

std::string textIn(const Dictionary& content, const char* key) {
  const std::string* text = content.stringFor(key);
  return text ? *text : std::string();
}

std::optional<std::string> textIfThere(const Dictionary& content, const char* key) {
  const std::string* text = content.stringFor(key);
  return text ? std::optional(*text) : std::nullopt;
}

std::optional<id_t> numberIfThere(const Dictionary& content, const char* key) {
  const Value* number = content.find(key);
  return number ? std::optional(static_cast<id_t>(number->integerValue())) : std::nullopt;
}

}  // namespace

Result<std::string> textOf(const AccountRequest& request) {
  const NewUser& user = request.user;
  Dictionary content = {{"kind", nameOf(request.kind)},
                        {"user", user.name},
                        {"hash", request.hash},
                        {"group", request.group},
                        {"patience", static_cast<std::int64_t>(request.patience.count())}};
  if (user.uid) content.set("uid", static_cast<std::int64_t>(*user.uid));
  if (user.gid) content.set("gid", static_cast<std::int64_t>(*user.gid));
  if (user.fullName) content.set("fullName", *user.fullName);
  if (user.shell) content.set("shell", *user.shell);
  if (user.home) content.set("home", *user.home);
  return serializePropertyList(Value(std::move(content)));
}

Result<AccountRequest> accountRequestIn(std::string_view text) {
  const auto parsed = parsePropertyList(text, kPropertyListFileSizeLimit);
  const Dictionary* content = parsed ? parsed.value().asDictionary() : nullptr;
  const auto kind = content ? kindNamed(content->stringFor("kind")) : std::nullopt;
  if (!kind) return SystemError(EINVAL);
  AccountRequest request;
  request.kind = *kind;
  request.user = {textIn(*content, "user"),          numberIfThere(*content, "uid"),
                  textIfThere(*content, "fullName"), numberIfThere(*content, "gid"),
                  textIfThere(*content, "shell"),    textIfThere(*content, "home")};
  request.hash = textIn(*content, "hash");
  request.group = textIn(*content, "group");
  const Value* patience = content->find("patience");
  request.patience = std::chrono::milliseconds(patience ? patience->integerValue() : 0);
  return request;
}

std::string accountAnswerOf(const Result<void>& changed) {
  if (changed) return {};
  return fill("%d %@", {changed.error().code(), changed.error().description()});
}

std::optional<Result<void>> accountAnswerIn(std::string_view answer) {
  if (answer.empty()) return Result<void>();
  int code = 0;
  const auto [end, problem] = std::from_chars(answer.data(), answer.data() + answer.size(), code);
  if (problem != std::errc() || end == answer.data() + answer.size() || *end != ' ') return std::nullopt;
  return SystemError(code, std::string(answer.substr(static_cast<std::size_t>(end - answer.data()) + 1)));
}

}  // namespace tessard
