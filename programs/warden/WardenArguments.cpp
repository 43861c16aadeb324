#include "programs/warden/WardenArguments.h"

#include <algorithm>
#include <cerrno>

#include "common/Format.h"

namespace tessard {

namespace {

bool takeFlag(WardenArguments& result, const std::string& argument) {
  if (argument == "--json") {
    result.json = true;
  } else if (argument == "--identity") {
    result.identity = true;
  } else if (argument == "--get-private-key-passphrase") {
    result.askForPassPhrase = true;
  } else if (argument == "--help" || argument == "-h") {
    result.help = true;
  } else if (argument == "--version") {
    result.version = true;
  } else {
    return false;
  }
  return true;
}

}  // namespace

Result<WardenArguments> parseWardenArguments(const std::vector<std::string>& arguments,
                                             const std::string& rootByDefault, bool& json) {
  json = std::ranges::find(arguments, "--json") != arguments.end();
  WardenArguments result;
  if (!rootByDefault.empty()) result.root = rootByDefault;
  for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
    if (*argument == "--") {
      result.words.insert(result.words.end(), argument + 1, arguments.end());
      break;
    }
    if (!argument->starts_with('-')) {
      result.words.push_back(*argument);
    } else if (argument->starts_with("--root=")) {
      result.root = argument->substr(argument->find('=') + 1);
    } else if (*argument == "--root") {
      if (++argument == arguments.end()) return SystemError(EINVAL, "The option \"--root\" needs a value.");
      result.root = *argument;
    } else if (!takeFlag(result, *argument)) {
      return SystemError(EINVAL, fill("There is no option \"%@\".", {*argument}));
    }
  }
  if (!result.root.starts_with('/')) return SystemError(EINVAL, "The root must be an absolute path.");
  return result;
}

std::string wardenHelp() {
  return "usage: keywarden [OPTION]... VERB [ARGUMENT]...\n"
         "Keeps the certificates, keys and pass phrases of the push-notification service.\n"
         "\n"
         "  import FILE                  puts in the certificates and the key of a PKCS#12 or PEM file;\n"
         "                               with --identity the key must be there\n"
         "  list                         shows what the keychain holds, without any secret\n"
         "  prefer NAME CERTIFICATE      makes a certificate with its key the preferred one for a name, "
         "such\n"
         "                               as korvs:com.velto.calendar, korvs:com.velto.contact,\n"
         "                               korvs:com.velto.mail or com.velto.KorvBridge.https\n"
         "  clear NAME                   takes that choice back\n"
         "  delete CERTIFICATE           takes out a certificate, and its key when nothing else needs it\n"
         "  passphrase set FILE          keeps the pass phrase of a key file, when it opens the key\n"
         "  passphrase delete FILE       forgets it\n"
         "  password delete ACCOUNT      forgets the password of an account\n"
         "  --get-private-key-passphrase FILE\n"
         "                               prints the pass phrase of a key file on one line, or nothing when\n"
         "                               the key needs none\n"
         "\n"
         "A CERTIFICATE is meant by a part of its subject, or by the first 8 or more digits of its SHA-256\n"
         "digest. Pass phrases are asked for on the terminal, or read as one line from standard input.\n"
         "\n"
         "  --root DIR                   the keychain below this directory, and key files there; otherwise\n"
         "                               that of TESSARD_ROOT, or of the machine\n"
         "  --json                       answers and errors as JSON on standard output\n"
         "  --help, --version\n"
         "\n"
         "Exit status: 0 done; 64 wrong usage; 65 what was given is not fit; 66 not there; 69 the keychain\n"
         "cannot be opened; 73, 74 it cannot be written; 75 it is in use; 77 not permitted.\n";
}

}  // namespace tessard
