#include "host/HttpServer.h"

#include <microhttpd.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <exception>
#include <utility>

#include "common/Format.h"
#include "host/WipedMemory.h"

namespace tessard {

namespace {

using Phase = ConnectionTable::Phase;

HttpAnswer tooLarge() {
  return errorAnswer(413, "too-large", fill("The body is larger than %lu bytes.", {kBodyLimit}));
}

HttpAnswer tooMuch() {
  return errorAnswer(
      503, "too-much-at-once",
      "Your requests and answers take too much memory together; try again when some are done.");
}

int descriptorOf(MHD_Connection* connection) {
  const auto* information = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  return information ? information->connect_fd : -1;
}

std::optional<std::string> headerOf(MHD_Connection* connection, MHD_ValueKind kind, const char* name) {
  const char* value = MHD_lookup_connection_value(connection, kind, name);
  if (!value) return std::nullopt;
  return value;
}

// Whether the client has closed its end. The library sends nothing to one that has closed only its sending
// side, so that one counts too.
bool hasLeft(int descriptor) {
  pollfd watched{descriptor, POLLRDHUP, 0};
  return poll(&watched, 1, 0) == 1 && (watched.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

bool announcesTooMuch(MHD_Connection* connection) {
  const auto length = headerOf(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (!length) return false;
  std::size_t announced = 0;
  const auto read = std::from_chars(length->data(), length->data() + length->size(), announced);
  return read.ec != std::errc() || announced > kBodyLimit;
}

}  // namespace

// One request and its answer. Belongs to the server's thread, and to the worker while the connection is
// suspended.
struct HttpServer::Exchange {
  HttpRequest request;
  bool dispatched = false;
  HttpAnswer answer;
};

// The library's C callbacks; nothing may be thrown into it.
struct HttpServer::Callbacks {
  static MHD_Result handle(void* server, MHD_Connection* connection, const char* url, const char* method,
                           const char* /*version*/, const char* upload, std::size_t* uploadSize,
                           void** context) {
    const WipedMemory wiped;
    try {
      return static_cast<MHD_Result>(
          static_cast<HttpServer*>(server)->handle(connection, url, method, upload, uploadSize, context));
    } catch (...) {
      return MHD_NO;
    }
  }

  static void* began(void* server, const char* /*uri*/, MHD_Connection* connection) {
    static_cast<HttpServer*>(server)->table_.enter(descriptorOf(connection), Phase::reading);
    return nullptr;
  }

  static void completed(void* server, MHD_Connection* connection, void** context,
                        MHD_RequestTerminationCode /*reason*/) {
    const WipedMemory wiped;
    delete static_cast<Exchange*>(*context);
    *context = nullptr;
    static_cast<HttpServer*>(server)->table_.enter(descriptorOf(connection), Phase::between);
  }

  static void connectionChanged(void* server, MHD_Connection* connection, void** /*context*/,
                                MHD_ConnectionNotificationCode what) {
    auto* self = static_cast<HttpServer*>(server);
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
      self->table_.enter(descriptorOf(connection), Phase::fresh);
      self->tally_.connectionOpened();
    } else {
      self->table_.remove(descriptorOf(connection));
      self->tally_.connectionClosed();
    }
  }
};

HttpServer::HttpServer(const PeerCheck& peers, const RequestRouter& router, WorkSlot& slot, WorkSlot& beside,
                       RequestTally& tally, HttpLimits limits, std::function<void(const std::string&)> report)
    : router_(router),
      slot_(slot),
      beside_(beside),
      tally_(tally),
      limits_(limits),
      table_(limits.connections),
      intake_(
          peers, table_, [this](int connection) { return serve(connection); }, std::move(report)) {}

HttpServer::~HttpServer() {
  stop();
}

Result<void> HttpServer::start() {
  // No limit of the library's own: ours counts earlier and has an answer for those that are too many.
  daemon_ =
      MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_USE_ITC |
                           MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME,
                       0, nullptr, nullptr, &Callbacks::handle, this, MHD_OPTION_URI_LOG_CALLBACK,
                       &Callbacks::began, this, MHD_OPTION_NOTIFY_COMPLETED, &Callbacks::completed, this,
                       MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::connectionChanged, this, MHD_OPTION_END);
  if (!daemon_) return SystemError(errno, "the HTTP server cannot be started");
  return {};
}

void HttpServer::acceptUntil(int stopEvent, int listener, Watchdog& watchdog) {
  const auto tick = [&](ConnectionTable::Moment now) {
    slot_.refuseLateJobs(now);
    beside_.refuseLateJobs(now);
    table_.endSlowConnections(now);
    watchdog.tick(now);
  };
  intake_.acceptUntil(stopEvent, listener, tick, watchdog.interval());
}

bool HttpServer::serve(int connection) {
  sockaddr address{};
  address.sa_family = AF_UNIX;
  return MHD_add_connection(daemon_, connection, &address, sizeof address) == MHD_YES;
}

int HttpServer::handle(MHD_Connection* connection, const char* url, const char* method, const char* upload,
                       std::size_t* uploadSize, void** context) {
  if (!*context) return beginExchange(connection, url, method, context);
  auto& exchange = *static_cast<Exchange*>(*context);
  if (*uploadSize > 0) return takeUpload(connection, exchange, upload, uploadSize);
  if (!exchange.dispatched) return dispatch(connection, exchange);
  return queueAnswer(connection, std::move(exchange.answer));
}

int HttpServer::beginExchange(MHD_Connection* connection, const char* url, const char* method,
                              void** context) {
  auto exchange = std::make_unique<Exchange>();
  HttpRequest& request = exchange->request;
  request.method = method;
  request.path = url;
  request.contentType = headerOf(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE);
  request.accept = headerOf(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT);
  request.with = headerOf(connection, MHD_GET_ARGUMENT_KIND, "with");
  request.only = headerOf(connection, MHD_GET_ARGUMENT_KIND, "only");
  request.timeout = headerOf(connection, MHD_GET_ARGUMENT_KIND, "timeout");
  *context = exchange.release();
  return announcesTooMuch(connection) ? queueAnswer(connection, tooLarge()) : MHD_YES;
}

int HttpServer::takeUpload(MHD_Connection* connection, Exchange& exchange, const char* upload,
                           std::size_t* uploadSize) {
  std::string& body = exchange.request.body;
  const std::size_t size = body.size() + *uploadSize;
  const bool fits = size <= kBodyLimit;
  // What it takes, not what is in it: the string would grow to twice its size.
  const std::size_t room =
      size <= body.capacity() ? body.capacity() : std::min(std::max(size, 2 * body.capacity()), kBodyLimit);
  if (!fits || !table_.hold(descriptorOf(connection), room)) {
    // The library takes no answer in the middle of a body, and this one may never end.
    sendNow(descriptorOf(connection), fits ? tooMuch() : tooLarge());
    return MHD_NO;
  }
  body.reserve(room);
  body.append(upload, *uploadSize);
  // The library's own memory, which it uses again and does not wipe.
  explicit_bzero(const_cast<char*>(upload), *uploadSize);
  *uploadSize = 0;
  return MHD_YES;
}

int HttpServer::dispatch(MHD_Connection* connection, Exchange& exchange) {
  exchange.dispatched = true;
  table_.enter(descriptorOf(connection), Phase::working);
  RoutedRequest routed;
  try {
    routed = router_.route(std::move(exchange.request));
  } catch (const std::exception& problem) {
    routed.answer = errorAnswer(500, "internal", fill("The daemon failed: %@.", {problem.what()}));
  }
  if (routed.answer) return queueAnswer(connection, *std::move(routed.answer));
  if (!table_.hold(descriptorOf(connection), routed.bytes)) return queueAnswer(connection, tooMuch());
  MHD_suspend_connection(connection);
  submit(connection, exchange, std::move(routed));
  return MHD_YES;
}

void HttpServer::submit(MHD_Connection* connection, Exchange& exchange, RoutedRequest routed) {
  const auto answer = [connection, &exchange](HttpAnswer given) {
    exchange.answer = std::move(given);
    MHD_resume_connection(connection);  // from here on the exchange is the server's again
  };
  const int descriptor = descriptorOf(connection);
  WorkSlot::Job job;
  job.label = std::move(routed.label);
  job.deadline =
      std::chrono::steady_clock::now() + std::min(limits_.queue, routed.patience.value_or(limits_.queue));
  const Requester requester = table_.requesterOf(descriptor);
  job.user = requester.user;
  job.isAbandoned = [descriptor] { return hasLeft(descriptor); };
  job.refuse = [answer, otherwise = std::move(routed.otherwise)](WorkSlot::Refusal reason) {
    answer(otherwise ? otherwise() : RequestRouter::refusal(reason));
  };
  job.run = [this, descriptor, requester, answer, work = std::move(routed.work)] {
    if (!table_.mayBeAnswered(descriptor)) {
      answer(tooMuch());
      return;
    }
    HttpAnswer given;
    try {
      given = work(requester);
    } catch (const std::exception& problem) {
      given = errorAnswer(500, "internal", fill("The daemon failed: %@.", {problem.what()}));
    }
    answer(std::move(given));
  };
  (routed.isBeside ? beside_ : slot_).submit(std::move(job));
}

int HttpServer::queueAnswer(MHD_Connection* connection, HttpAnswer answer) {
  tally_.answered(answer.status);
  table_.enter(descriptorOf(connection), Phase::answering);
  table_.holdAnswer(descriptorOf(connection), answer.body.capacity());
  auto body = std::make_unique<std::string>(std::move(answer.body));
  MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
      body->size(), body->data(), [](void* content) { delete static_cast<std::string*>(content); },
      body.get());
  if (!response) return MHD_NO;
  static_cast<void>(body.release());  // the response's from here on
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.contentType.c_str());
  if (answer.retryAfter > 0) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_RETRY_AFTER, std::to_string(answer.retryAfter).c_str());
  }
  if (!answer.allow.empty()) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, answer.allow.c_str());
  const MHD_Result queued = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return queued;
}

void HttpServer::stop() {
  if (!daemon_) return;
  table_.waitForAnswers();
  MHD_stop_daemon(std::exchange(daemon_, nullptr));
}

}  // namespace tessard
