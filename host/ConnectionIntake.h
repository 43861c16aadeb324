#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "host/ConnectionTable.h"
#include "host/PeerCheck.h"
#include "host/RefusalLog.h"
#include "platform/FileDescriptor.h"

namespace tessard {

/// Takes connections from the listening socket and decides, before a byte of one is read, whether it is
/// served: its owner must be allowed to connect and have a place left in the table. One that is not gets one
/// answer and is closed. One thread.
class ConnectionIntake {
 public:
  using Moment = ConnectionTable::Moment;

  /// `serve` is given each connection that has got its place, with the descriptor. False when it could not
  /// take it, which it has closed then. `report` is told sentences about refused clients, few of them. All
  /// but those is borrowed.
  ConnectionIntake(const PeerCheck& peers, ConnectionTable& table, std::function<bool(int)> serve,
                   std::function<void(const std::string&)> report);

  /// Until `stopEvent` is readable. The listener does not block. `tick` is called several times a second
  /// while there are connections, and otherwise each time that `longest` has passed, or not at all.
  void acceptUntil(int stopEvent, int listener, const std::function<void(Moment)>& tick,
                   std::optional<std::chrono::milliseconds> longest);

 private:
  bool waitForClients(int stopEvent, int listener, bool canAccept, int longest);
  bool acceptSome(int listener);
  void take(int connection);
  void refuse(int connection, const std::string& sentence, const std::string& message);
  void makeDescriptorFree(int listener);

  const PeerCheck& peers_;
  ConnectionTable& table_;
  const std::function<bool(int)> serve_;
  const std::function<void(const std::string&)> report_;
  RefusalLog refusals_;
  FileDescriptor spare_;  ///< given up to refuse a client when there is no other descriptor
};

}  // namespace tessard
