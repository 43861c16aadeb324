#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "common/Result.h"
#include "host/ConnectionIntake.h"
#include "host/ConnectionTable.h"
#include "host/HttpMessage.h"
#include "host/PeerCheck.h"
#include "host/RequestRouter.h"
#include "host/RequestTally.h"
#include "host/Watchdog.h"
#include "host/WorkSlot.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace tessard {

inline constexpr std::size_t kBodyLimit = std::size_t{1024} * 1024;

struct HttpLimits {
  ConnectionLimits connections;
  std::chrono::seconds queue{120};  ///< for a request to wait for the work slot
};

/// HTTP/1.1 over a listening Unix socket. A client's right to connect and its place are decided before a byte
/// of it is read. One thread serves all connections and never waits for one; a request is read whole before
/// it asks for the work slot.
class HttpServer {
 public:
  /// All is borrowed and outlives the server. `beside` is for the work that must hold no other work up.
  /// `report` is told of refused clients, one sentence each.
  HttpServer(const PeerCheck& peers, const RequestRouter& router, WorkSlot& slot, WorkSlot& beside,
             RequestTally& tally, HttpLimits limits, std::function<void(const std::string&)> report);
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer();

  Result<void> start();

  /// Takes connections from a non-blocking listening socket until `stopEvent` is readable.
  void acceptUntil(int stopEvent, int listener, Watchdog& watchdog);

  /// Sends the answers that are due, waiting for them no longer than a client may take for one, and closes
  /// every connection. The work slots are to be stopped before.
  void stop();

 private:
  struct Exchange;
  struct Callbacks;

  bool serve(int connection);
  int handle(MHD_Connection* connection, const char* url, const char* method, const char* upload,
             std::size_t* uploadSize, void** context);
  int beginExchange(MHD_Connection* connection, const char* url, const char* method, void** context);
  int takeUpload(MHD_Connection* connection, Exchange& exchange, const char* upload, std::size_t* uploadSize);
  int dispatch(MHD_Connection* connection, Exchange& exchange);
  void submit(MHD_Connection* connection, Exchange& exchange, RoutedRequest routed);
  int queueAnswer(MHD_Connection* connection, HttpAnswer answer);

  const RequestRouter& router_;
  WorkSlot& slot_;
  WorkSlot& beside_;
  RequestTally& tally_;
  const HttpLimits limits_;
  ConnectionTable table_;
  ConnectionIntake intake_;
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace tessard
