#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "host/BundleLoader.h"
#include "host/Certificates.h"
#include "host/HttpMessage.h"
#include "host/MediaType.h"
#include "host/Metrics.h"
#include "host/RequestExecutor.h"
#include "host/RequestRecords.h"
#include "host/Requester.h"
#include "host/ServiceReports.h"
#include "host/TlsCertificate.h"
#include "host/TlsExpiry.h"
#include "host/WorkSlot.h"
#include "host/check/Checks.h"

namespace tessard {

/// What a request comes to: an answer at once, or work for the slot that gives the answer.
struct RoutedRequest {
  std::optional<HttpAnswer> answer{};
  std::string label{};  ///< of the work
  std::function<HttpAnswer(const Requester&)> work{};
  std::size_t bytes = 0;  ///< of memory that the work takes while it waits, about
  bool isBeside = false;  ///< for the slot of work that must hold no other work up
  /// For work that is not worth a longer wait: how long it may take until its turn, and what is answered
  /// otherwise, on any thread.
  std::optional<std::chrono::seconds> patience{};
  std::function<HttpAnswer()> otherwise{};
};

/// Which request goes where:
///   POST /v1/plugins/NAME            a request dictionary with its "command"; the answer dictionary
///   POST /v1/events/idle             an empty body, or a dictionary with "count"
///   POST /v1/events/network-change   a dictionary, see `NetworkChangeContext::fromEvent`
///   GET  /v1/health                  what the daemon is doing; answered at once
///   GET  /v1/metrics                 see `Metrics`; waits for its turn for a few seconds at most
///   GET  /v1/certificates            the keychain's certificates, see `Certificates`
///   POST /v1/certificates            a dictionary with the "file" to import, see `Certificates`
///   GET  /v1/check                   what is wrong, see `Checks`; in the slot beside the work's
///   GET  /v1/check/areas             what can be found; answered at once
///   GET  /v1/tls-certificate         the certificate that clients are shown, see `TlsCertificate`
///   POST /v1/tls-certificate         a dictionary with the one to be shown from now on
///   GET  /v1/services                {"services": how each is doing}, see `ServiceReports`; answered at once
/// Events answer {"plugins": [names]}. With "?with=log" the answer is {"answer": ..., "log": [...]}.
/// Errors are those of `errorAnswer`, with the ids that docs/requests.md lists.
class RequestRouter {
 public:
  /// All is borrowed; `plugins` is not changed any more.
  RequestRouter(const Plugins& plugins, RequestExecutor& executor, RequestRecords& records,
                const WorkSlot& slot, const ServiceReports& services, Certificates& certificates,
                TlsCertificate& tlsCertificate, TlsExpiry& tlsExpiry, const Metrics& metrics, Checks& checks)
      : plugins_(plugins),
        executor_(executor),
        records_(records),
        slot_(slot),
        services_(services),
        certificates_(certificates),
        tlsCertificate_(tlsCertificate),
        tlsExpiry_(tlsExpiry),
        metrics_(metrics),
        checks_(checks) {}

  /// May be called on any thread; `work` runs on the slot's. May throw.
  RoutedRequest route(HttpRequest request) const;

  /// The answer to a job that the slot refused.
  static HttpAnswer refusal(WorkSlot::Refusal reason);

 private:
  struct Body;

  HttpAnswer routeRead(const HttpRequest& request) const;
  Dictionary health() const;
  RoutedRequest routePlugin(HttpRequest request) const;
  RoutedRequest routeEvent(HttpRequest request) const;
  RoutedRequest routeMetrics(HttpRequest request) const;
  RoutedRequest routeCertificates(HttpRequest request) const;
  RoutedRequest routeCheck(HttpRequest request) const;
  RoutedRequest routeTlsCertificate(HttpRequest request) const;
  HttpAnswer runEvent(const HttpRequest& request, const Body& body, const Requester& requester) const;
  HttpAnswer importCertificates(const HttpRequest& request, const Body& body,
                                const Requester& requester) const;
  HttpAnswer importTlsCertificate(const HttpRequest& request, const Body& body,
                                  const Requester& requester) const;

  const Plugins& plugins_;
  RequestExecutor& executor_;
  RequestRecords& records_;
  const WorkSlot& slot_;
  const ServiceReports& services_;
  Certificates& certificates_;
  TlsCertificate& tlsCertificate_;
  TlsExpiry& tlsExpiry_;
  const Metrics& metrics_;
  Checks& checks_;
};

}  // namespace tessard
