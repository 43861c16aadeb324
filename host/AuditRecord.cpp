#include "host/AuditRecord.h"

#include "common/Format.h"
#include "host/JsonCodec.h"
#include "host/SecretKeys.h"

namespace tessard {

namespace {

constexpr std::size_t kMostBytes = 200;
constexpr std::size_t kMostEntries = 50;

// Ends between two characters.
std::string shortened(const std::string& text) {
  if (text.size() <= kMostBytes) return text;
  std::size_t end = kMostBytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;
  return text.substr(0, end) + "…";
}

Value masked(std::string_view key, const Value& value) {
  if (speaksOfSecret(key)) return "***";
  if (const Data* data = value.asData()) return fill("%lu bytes", {data->bytes.size()});
  if (const Array* list = value.asArray()) {
    Array kept;
    for (const Value& element : *list) kept.push_back(masked("", element));
    return kept;
  }
  const Dictionary* dictionary = value.asDictionary();
  if (!dictionary) return value;
  Dictionary kept;
  for (const DictionaryEntry& entry : *dictionary) kept.set(entry.key, masked(entry.key, entry.value));
  return kept;
}

Value shown(std::string_view key, const Value& value) {
  Value kept = masked(key, value);
  if (const std::string* text = kept.asString()) return shortened(*text);
  if (!kept.asArray() && !kept.asDictionary()) return kept;
  std::string json = serializeJson(kept);
  if (json.size() <= kMostBytes) return kept;
  return shortened(json);
}

// Collects the entries of one part of a record.
class Entries {
 public:
  void add(std::string_view key, Value value) {
    if (kept_.size() < kMostEntries) {
      kept_.set(shortened(std::string(key)), std::move(value));
    } else {
      ++more_;
    }
  }

  void finish(const char* name, Dictionary& record) {
    record.set(name, std::move(kept_));
    if (more_ > 0) record.set("more", more_);
  }

 private:
  Dictionary kept_;
  std::int64_t more_ = 0;
};

bool differ(const Value* one, const Value* other) {
  return one && other ? *one != *other : one != other;
}

// The settings that a request can have changed: those that it names, or all.
Dictionary concernedBy(const AuditedRequest& audited, const Dictionary& now) {
  if (const Dictionary* given = audited.request.dictionaryFor("configuration")) return *given;
  Dictionary all = audited.before.value_or(Dictionary());
  all.updateWithDictionary(now);
  return all;
}

void addChanges(const AuditedRequest& audited, const ExecutionOutcome& outcome, Dictionary& record) {
  const Dictionary none;
  const Dictionary* now = outcome.answer.dictionaryFor("configuration");
  Entries entries;
  for (const DictionaryEntry& entry : concernedBy(audited, now ? *now : none)) {
    // Without an answer nobody knows; what was put back or refused is as it was.
    const Value* before = audited.before ? audited.before->find(entry.key) : nullptr;
    const Value* after = now ? now->find(entry.key) : before;
    if (!differ(before, after)) continue;
    Dictionary change;
    if (before) change.set("old", shown(entry.key, *before));
    if (after) change.set("new", shown(entry.key, *after));
    entries.add(entry.key, std::move(change));
  }
  entries.finish("changed", record);
}

void addRequest(const AuditedRequest& audited, Dictionary& record) {
  Entries entries;
  for (const DictionaryEntry& entry : audited.request) {
    if (entry.key != "command") entries.add(entry.key, shown(entry.key, entry.value));
  }
  entries.finish("request", record);
}

}  // namespace

Array settingsNamedIn(std::string_view command, const Dictionary& request) {
  Array keys;
  const Dictionary* configuration =
      command == "writeSettings" ? request.dictionaryFor("configuration") : nullptr;
  if (!configuration) return keys;
  for (const DictionaryEntry& entry : *configuration) keys.emplace_back(entry.key);
  return keys;
}

bool mayChangeAllSettings(std::string_view command) {
  return command == "undoSettings";
}

Dictionary auditRecord(const AuditedRequest& audited, const Requester& requester,
                       const ExecutionOutcome& outcome) {
  Dictionary record;
  if (std::string name = userNameOf(requester.user); !name.empty()) record.set("user", std::move(name));
  record.set("uid", static_cast<std::int64_t>(requester.user));
  record.set("pid", static_cast<std::int64_t>(requester.process));
  record.set("plugin", audited.plugin);
  record.set("command", audited.command);
  const bool isAddress = audited.request.dictionaryFor("configuration") &&
                         audited.request.dictionaryFor("configuration")->contains("changeip");
  if ((audited.command == "writeSettings" && !isAddress) || mayChangeAllSettings(audited.command)) {
    addChanges(audited, outcome, record);
  } else {
    addRequest(audited, record);
  }
  if (const std::string* state = outcome.answer.stringFor("state")) record.set("state", shortened(*state));
  record.set("result", resultOf(outcome));
  const std::int64_t errors = errorLinesOf(outcome);
  if (errors > 0) record.set("errors", errors);
  return record;
}

std::string auditLine(const Dictionary& record) {
  return "audit: " + serializeJson(record);
}

}  // namespace tessard
