#pragma once

#include <cstddef>

#include "common/Log.h"
#include "common/Value.h"

namespace tessard {

/// Collects the warning and error lines that are logged while it exists. Used on the thread that carries
/// requests.
class RequestLog : public LogObserver {
 public:
  /// Lines beyond it are counted only.
  static constexpr std::size_t kLineLimit = 1000;

  /// Becomes the log's observer until it ends; the observer before it still sees every line.
  explicit RequestLog(Log& log);
  RequestLog(const RequestLog&) = delete;
  RequestLog& operator=(const RequestLog&) = delete;
  ~RequestLog() override;

  void logged(int level, std::string_view message) override;

  /// {"level": "warning" or "error", "message"} for each line, in their order.
  Array lines() const;

 private:
  Log& log_;
  LogObserver* previous_;
  Array lines_;
  std::size_t dropped_ = 0;
};

}  // namespace tessard
