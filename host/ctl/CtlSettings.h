#pragma once

#include <string>

#include "host/ctl/CtlCall.h"

namespace tessard {

// What the verbs "settings ..." have in common. Each gives the exit code.

/// Verbs for whole files of settings, and the undo of the last write; `words` are those behind the verb.
int diffSettings(CtlCall& call, const CtlCall::Words& words);
int applySettings(CtlCall& call, const CtlCall::Words& words);
int exportSettings(CtlCall& call, const CtlCall::Words& words);
int undoSettings(CtlCall& call, const CtlCall::Words& words);

int unusableFile(const CtlCall& call, const std::string& path, const SystemError& reason);

/// Tells what the answer to a settings write means.
int tellWriteStatus(CtlCall& call, const Dictionary& sent, const Dictionary& answer);

}  // namespace tessard
