#include "host/TlsCertificateChange.h"

#include <algorithm>

#include "common/DurableReplace.h"
#include "common/FileSystem.h"
#include "common/Format.h"
#include "platform/keychain/CertificateFile.h"

namespace tessard {

namespace {

// The service's own account may read the file, and not change it.
constexpr FileOwnership kOwnership = {0, 84, 0640};

constexpr std::chrono::seconds kMostSeconds{30};  // for looking at all entrances and domains

// A sentence without a full stop, from one.
std::string clause(std::string text) {
  while (!text.empty() && text.back() == '.') text.pop_back();
  return text;
}

std::string firstError(const ExecutionOutcome& outcome) {
  for (const Value& line : outcome.log) {
    const Dictionary* entry = line.asDictionary();
    const std::string* level = entry ? entry->stringFor("level") : nullptr;
    const std::string* message = entry ? entry->stringFor("message") : nullptr;
    if (level && message && *level == "error") return clause(*message);
  }
  return "";
}

}  // namespace

TlsCertificateOutcome TlsCertificateChange::make(std::string_view pem, const std::string& sha256) {
  outcome_.running = isRunning(service_, executor_);
  if (outcome_.running) service_.entrances = openEntrances();
  if (const auto put = putFile(pem); !put) {
    outcome_.failure = {"cannot-write", fill("%@ cannot be written: %@. Nothing is changed.",
                                             {kTlsCertificateFile, put.error().description()})};
    return std::move(outcome_);
  }
  if (const auto problem = set(kTlsCertificateFile)) {
    goBack("not-set", fill("The settings cannot be changed: %@.", {*problem}));
    return std::move(outcome_);
  }
  if (!outcome_.running) return std::move(outcome_);
  if (!outcome_.changed && !unseenCertificate(sha256)) return std::move(outcome_);
  outcome_.restarted = true;
  if (!restart()) {
    goBack("not-restarted", "The service does not start with the new certificate; the system log says why.");
    return std::move(outcome_);
  }
  if (const auto problem = unseenCertificate(sha256)) goBack("not-served", *problem);
  return std::move(outcome_);
}

// Those that this machine can reach: a port that is bound to another address is none of them.
std::vector<TlsEntrance> TlsCertificateChange::openEntrances() const {
  TlsService first = service_;
  first.domains.resize(std::min<std::size_t>(first.domains.size(), 1));
  std::vector<TlsEntrance> open;
  for (const ServedAt& seen : lookAt(first, kMostSeconds)) {
    if (!seen.isClosed) open.push_back(seen.entrance);
  }
  return open;
}

Result<void> TlsCertificateChange::putFile(std::string_view pem) {
  FileSystem& files = platform_.files;
  const auto former = files.readFile(kTlsCertificateFile, CertificateFile::kSizeLimit);
  if (former && former.value() == pem) {
    // Whoever could read it may have done so; from now on nobody can.
    return executor_.change([&] { return files.setOwnership(kTlsCertificateFile, kOwnership); });
  }
  const bool isThere = files.exists(kTlsCertificateFile);
  auto written = executor_.change([&]() -> Result<void> {
    if (!isThere) return writeAtomically(files, kTlsCertificateFile, pem, kOwnership);
    const Replacement replacement = replaceKeepingBackup(files, kTlsCertificateFile, pem, kOwnership);
    if (replacement.outcome != ReplaceOutcome::replaced) return replacement.error;
    return {};
  });
  if (!written) return written;
  outcome_.changed = true;
  file_ = isThere ? FileChange::replaced : FileChange::made;
  return {};
}

Result<void> TlsCertificateChange::takeFileBack() {
  FileSystem& files = platform_.files;
  if (file_ == FileChange::none) return {};
  return executor_.change([&]() -> Result<void> {
    auto done = file_ == FileChange::made
                    ? files.remove(kTlsCertificateFile)
                    : files.rename(backupPathFor(kTlsCertificateFile), kTlsCertificateFile);
    if (!done) return done;
    return files.syncDirectory(directoryOf(kTlsCertificateFile));
  });
}

// Absent when it is done. The authorities' file goes with it, as a key file that is set alone takes it away.
std::optional<std::string> TlsCertificateChange::set(const std::string& keyFile) {
  Dictionary wanted = {{"sslKeyFile", keyFile}};
  if (!service_.caFile.empty()) wanted.set("sslCAFile", service_.caFile);
  const auto outcome =
      executor_.execute(*service_.handler, "writeSettings",
                        {{"command", "writeSettings"}, {"configuration", std::move(wanted)}});
  keepLog(outcome);
  const std::string result = resultOf(outcome);
  const Dictionary* now = outcome.answer.dictionaryFor("configuration");
  const std::string* reached = now ? now->stringFor("sslKeyFile") : nullptr;
  if (result != "done" || !reached || *reached != keyFile) {
    const std::string error = firstError(outcome);
    return error.empty() ? fill("the answer is %@", {result}) : error;
  }
  set_ = true;
  outcome_.changed = outcome_.changed || keyFile != service_.keyFile;
  return std::nullopt;
}

bool TlsCertificateChange::restart() {
  keepLog(executor_.execute(*service_.handler, "setState", {{"command", "setState"}, {"state", "RESTART"}}));
  return isRunning(service_, executor_);
}

// Why the certificate is not the one that is shown everywhere.
std::optional<std::string> TlsCertificateChange::unseenCertificate(const std::string& sha256) {
  outcome_.served = lookAt(service_, kMostSeconds);
  outcome_.unseen = service_.domains.size() * service_.entrances.size() - outcome_.served.size();
  for (const ServedAt& seen : outcome_.served) {
    const bool isNew = seen.certificate && seen.certificate->sha256 == sha256;
    if (isNew) continue;
    const std::string place = fill("At port %u a client of \"%@\" ", {seen.entrance.port, seen.domain});
    if (!seen.certificate) return place + fill("gets no certificate: %@.", {seen.problem});
    return place + fill("still gets another certificate, that of \"%@\".", {seen.certificate->subject});
  }
  return std::nullopt;
}

void TlsCertificateChange::goBack(const char* id, const std::string& reason) {
  std::string sentence = reason + " The former certificate and settings are back";
  const auto file = takeFileBack();
  const auto settings = set_ ? set(service_.keyFile) : std::nullopt;
  // To undo the last write would name the new file again, which may be gone.
  const bool namedAnother = set_ && service_.keyFile != kTlsCertificateFile;
  const auto forgotten = namedAnother && !settings ? executor_.forgetLastChange() : Result<void>();
  const bool runs = !outcome_.restarted || restart();
  if (!file) {
    sentence = fill("%@ The former file could not be put back: %@; it is %@",
                    {reason, file.error().description(), backupPathFor(kTlsCertificateFile)});
  } else if (settings) {
    sentence = fill("%@ The former settings could not be put back: %@", {reason, *settings});
  } else if (!runs) {
    sentence += ", but the service does not start with them either";
  } else if (!forgotten) {
    sentence += fill(", but to undo the last settings write would take them away: %@",
                     {forgotten.error().description()});
  }
  outcome_.changed = !file || settings;
  outcome_.running = outcome_.running && runs;
  outcome_.served.clear();
  outcome_.failure = {id, sentence + "."};
}

void TlsCertificateChange::keepLog(const ExecutionOutcome& outcome) {
  outcome_.log.insert(outcome_.log.end(), outcome.log.begin(), outcome.log.end());
}

}  // namespace tessard
