#pragma once

#include "common/Platform.h"
#include "platform/PosixFileSystem.h"
#include "platform/PosixTasks.h"
#include "platform/UnistringUnicode.h"
#include "platform/accounts/LibuserDirectory.h"
#include "platform/journal/JournalingFileSystem.h"
#include "platform/keychain/SqliteKeychain.h"
#include "platform/logs/LinuxLogReader.h"
#include "tests/support/FakeBundles.h"
#include "tests/support/FakeClock.h"
#include "tests/support/FakeHostNames.h"
#include "tests/support/FakeNetwork.h"
#include "tests/support/FakeProcesses.h"
#include "tests/support/FaultyDirectory.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/FaultyKeychain.h"
#include "tests/support/OwnPrograms.h"
#include "tests/support/RecordingLog.h"
#include "tests/support/RecordingLogReader.h"
#include "tests/support/RecordingServiceManager.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/ScriptedTasks.h"
#include "tests/support/SequenceRandom.h"

namespace tessard {

/// Everything outside for one test: a scratch system root with the real classes for files, accounts and the
/// keychain, recorded and open to failures, and for logs, recorded; the real Unicode class, and recording
/// fakes for the rest. Hand it to code as a `Platform&`. Where the user of the machine cannot give files
/// away, the ids 0, 1, 80 and 84 stand for the user's own.
class TestPlatform {
 public:
  TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  ScratchRoot root;
  PosixFileSystem posixFiles;
  FaultyFileSystem files{posixFiles};
  ScriptedTasks tasks;
  RecordingServiceManager services;
  FakeProcesses processes;
  FakeHostNames hostNames;
  FakeNetwork network;
  FakeClock clock;
  SequenceRandom random;
  UnistringUnicode unicode;
  FakeBundles bundles;
  PosixTasks ownPrograms{root.path(), ownProgramsDirectory()};  ///< for `accounts` alone
  LibuserDirectory accounts{root.path(), ownPrograms};
  FaultyDirectory directory{accounts};
  SqliteKeychain sqliteKeychain;
  FaultyKeychain keychain{sqliteKeychain};
  LinuxLogReader linuxLogs{root.path()};
  RecordingLogReader logs{linuxLogs};
  RecordingLog log;

  /// Notes nothing before a request is started.
  JournalingFileSystem journal{files, posixFiles, root.path(), log};

  Platform platform{journal, journal, tasks,   services,  processes, hostNames, network, clock,
                    random,  unicode, bundles, directory, keychain,  logs,      log};
  operator Platform&() { return platform; }
};

/// The ids on disk under which this process can have files that belong to 0, 1, 80 and 84.
OwnerMap ownersForTests();

}  // namespace tessard
