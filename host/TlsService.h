#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "common/PluginRequestHandler.h"
#include "common/Value.h"
#include "host/BundleLoader.h"
#include "host/RequestExecutor.h"
#include "platform/certificates/CertificateExamination.h"
#include "platform/certificates/ServedCertificate.h"

namespace tessard {

/// A service that shows clients a certificate, as its settings say.
struct TlsService {
  PluginRequestHandler* handler = nullptr;  ///< borrowed
  std::vector<std::string> domains;
  std::string keyFile;  ///< with certificates and key; empty for none
  std::string caFile;   ///< empty for none
  std::vector<TlsEntrance> entrances;
};

/// The first plug-in's that has one; absent before first-time setup. On the thread of the work slot.
std::optional<TlsService> tlsServiceOf(const Plugins& plugins, RequestExecutor& executor);

/// Whether it runs, or at least what clients connect to.
bool isRunning(const TlsService& service, RequestExecutor& executor);

/// What was seen at one entrance for one domain.
struct ServedAt {
  TlsEntrance entrance;
  std::string domain;
  std::optional<CertificateFacts> certificate;
  std::string problem;    ///< a sentence without a full stop, where there is no certificate
  bool isClosed = false;  ///< nobody listens
};

/// Asks every entrance for every domain, first domain first, as long as `patience` lasts: what is not asked
/// for is left out.
std::vector<ServedAt> lookAt(const TlsService& service, std::chrono::seconds patience);

}  // namespace tessard
