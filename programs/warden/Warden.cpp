#include "programs/warden/Warden.h"

#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>

#include "common/Format.h"
#include "platform/PosixFileSystem.h"
#include "platform/SystemCalls.h"
#include "platform/SystemClock.h"
#include "platform/keychain/SecretInput.h"
#include "programs/warden/KeyFiles.h"

namespace tessard {

namespace {

class Warden {
 public:
  Warden(const WardenArguments& arguments, const WardenOutput& output)
      : arguments_(arguments), output_(output), manager_(arguments.root, clock_) {}

  int run() {
    const auto& words = arguments_.words;
    std::error_code problem;
    if (!std::filesystem::is_directory(arguments_.root, problem)) {
      const SystemError reason = problem ? SystemError(problem.value()) : SystemError(ENOTDIR);
      return unreadable(arguments_.root, reason);
    }
    if (arguments_.askForPassPhrase) {
      if (words.size() != 1 || words[0].empty()) return usage("One key file is needed.");
      return tellPassPhrase(words[0]);
    }
    if (words.empty()) return usage("It is not said what to do.");
    if (is({"list"}, 0)) return list();
    if (is({"import"}, 1)) return import(words[1]);
    if (is({"prefer"}, 2)) return prefer(words[1], words[2]);
    if (is({"clear"}, 1)) return clear(words[1]);
    if (is({"delete"}, 1)) return removeCertificate(words[1]);
    if (is({"passphrase", "set"}, 1)) return setPassPhrase(words[2]);
    if (is({"passphrase", "delete"}, 1)) return removePassPhrase(words[2]);
    if (is({"password", "delete"}, 1)) return removePassword(words[2]);
    return usage(fill("\"%@\" is no verb with so many arguments.", {words[0]}));
  }

 private:
  // Whether the words are this verb with so many arguments.
  bool is(std::initializer_list<const char*> verb, std::size_t arguments) const {
    return arguments_.words.size() == verb.size() + arguments &&
           std::equal(verb.begin(), verb.end(), arguments_.words.begin());
  }

  int usage(const std::string& reason) const {
    return output_.failure("usage", reason + " See keywarden --help.", EX_USAGE);
  }

  int unreadable(const std::string& file, const SystemError& reason) const {
    return output_.failure("unreadable", fill("%@ cannot be read: %@.", {file, reason.description()}),
                           reason.code() == EACCES ? EX_NOPERM : EX_NOINPUT);
  }

  int tellPassPhrase(const std::string& file) {
    const auto name = systemPathOf(arguments_.root, file);
    if (!name) return unreadable(file, name.error());
    const auto pem = readSystemFile(arguments_.root, name.value());
    if (!pem) return pem.error().code() == ENOENT ? EX_OK : unreadable(name.value(), pem.error());
    // Both ways in which PEM says that a key is encrypted have this word. The usual file needs no more work.
    if (pem.value().find("ENCRYPTED") == std::string::npos) return EX_OK;
    const auto kind = keyFileKind(pem.value());
    // What is no key file at all is the service's to complain about.
    if (!kind || kind.value() != KeyFileKind::encrypted) return EX_OK;
    const auto phrase = manager_.passPhrase(name.value());
    if (!phrase) return output_.failure(phrase.error());
    if (!phrase.value()) {
      return output_.failure(
          "not-found",
          fill("The key in %@ is encrypted, and the keychain has no pass phrase for it. To keep "
               "it: keywarden passphrase set %@",
               {name.value(), name.value()}),
          EX_NOINPUT);
    }
    if (const auto fits = checkPassPhrase(pem.value(), *phrase.value()); !fits) {
      return output_.failure(
          fits.error().id(),
          fill("The pass phrase in the keychain does not open the key in %@. To keep another: "
               "keywarden passphrase set %@",
               {name.value(), name.value()}),
          EX_DATAERR);
    }
    // Past the buffers of the standard library, which nobody wipes.
    const bool told = writeAll(STDOUT_FILENO, phrase.value()->view()) && writeAll(STDOUT_FILENO, "\n");
    return told ? EX_OK : EX_IOERR;
  }

  int list() {
    auto certificates = manager_.certificates();
    if (!certificates) return output_.failure(certificates.error());
    auto files = manager_.passPhraseFiles();
    if (!files) return output_.failure(files.error());
    auto accounts = manager_.passwordAccounts();
    if (!accounts) return output_.failure(accounts.error());
    output_.listing({std::move(certificates).value(), std::move(files).value(), std::move(accounts).value()});
    return EX_OK;
  }

  int import(const std::string& file) {
    std::error_code problem;
    const auto path = std::filesystem::absolute(file, problem);
    if (problem) return unreadable(file, SystemError(problem.value()));
    // A file of the machine, wherever the keychain is.
    auto read = PosixFileSystem().readFile(path.string(), kImportLimit);
    if (!read && read.error().code() != EFBIG) return unreadable(file, read.error());
    const Secret bytes(read ? std::string_view(read.value()) : std::string_view());
    // There may be a key in it that nothing protects.
    if (read) OPENSSL_cleanse(read.value().data(), read.value().size());
    if (!read) return output_.failure("too-large", fill("%@ is larger than 1 MiB.", {file}), EX_DATAERR);
    auto report = manager_.importFile(bytes.view(), nullptr, arguments_.identity);
    if (!report && report.error().problem == KeychainProblem::passPhraseNeeded) {
      const auto phrase = readSecret(fill("Pass phrase of %@: ", {file}));
      if (!phrase) return output_.failure(report.error());
      report = manager_.importFile(bytes.view(), &*phrase, arguments_.identity);
    }
    if (!report) return output_.failure(report.error());
    output_.imported(report.value());
    return EX_OK;
  }

  int prefer(const std::string& name, const std::string& meant) {
    const auto chosen = manager_.prefer(name, meant);
    if (!chosen) return output_.failure(chosen.error());
    output_.done("preferred", chosen.value());
    return EX_OK;
  }

  int clear(const std::string& name) {
    const auto cleared = manager_.clearPreferred(name);
    if (!cleared) return output_.failure(cleared.error());
    output_.done(cleared.value() ? "cleared" : "notChosen", name);
    return EX_OK;
  }

  int removeCertificate(const std::string& meant) {
    const auto removed = manager_.removeCertificate(meant);
    if (!removed) return output_.failure(removed.error());
    output_.done("deleted", removed.value());
    return EX_OK;
  }

  int setPassPhrase(const std::string& file) {
    const auto name = systemPathOf(arguments_.root, file);
    if (!name) return unreadable(file, name.error());
    const auto pem = readSystemFile(arguments_.root, name.value());
    if (!pem) return unreadable(file, pem.error());
    // Nobody is asked for what would not be taken.
    const auto kind = keyFileKind(pem.value());
    if (!kind) return output_.failure(kind.error());
    if (kind.value() != KeyFileKind::encrypted) {
      return output_.failure(kind.value() == KeyFileKind::noKey ? "no-key" : "invalid-request",
                             fill(kind.value() == KeyFileKind::noKey ? "%@ holds no private key."
                                                                     : "The key in %@ is not encrypted.",
                                  {file}),
                             EX_DATAERR);
    }
    const auto phrase = readSecret(fill("Pass phrase of %@: ", {file}));
    if (!phrase) return output_.failure("pass-phrase-needed", "No pass phrase was given.", EX_NOINPUT);
    if (const auto set = manager_.setPassPhrase(name.value(), pem.value(), *phrase); !set) {
      return output_.failure(set.error());
    }
    output_.done("kept", name.value());
    return EX_OK;
  }

  int removePassPhrase(const std::string& file) {
    const auto name = systemPathOf(arguments_.root, file);
    if (!name) return unreadable(file, name.error());
    return removed(manager_.removePassPhrase(name.value()), "pass phrase for", name.value());
  }

  int removePassword(const std::string& account) {
    return removed(manager_.removePassword(account), "password of", account);
  }

  int removed(const KeychainResult<bool>& result, const char* what, const std::string& thing) const {
    if (!result) return output_.failure(result.error());
    if (!result.value()) {
      return output_.failure("not-found", fill("There is no %@ %@ in the keychain.", {what, thing}),
                             EX_NOINPUT);
    }
    output_.done("deleted", thing);
    return EX_OK;
  }

  static constexpr std::size_t kImportLimit = std::size_t{1024} * 1024;

  const WardenArguments& arguments_;
  const WardenOutput& output_;
  SystemClock clock_;
  KeychainManager manager_;
};

}  // namespace

int runWarden(const WardenArguments& arguments, const WardenOutput& output) {
  return Warden(arguments, output).run();
}

}  // namespace tessard
