#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessard {

/// The two forms in which collectors read metrics: OpenMetrics 1.0, and the older text format of Prometheus
/// (0.0.4), which its node exporter reads from files. They differ in the names of counters' families and in
/// the mark of the end.
enum class MetricsForm { openMetrics, prometheusText };

enum class MetricKind { counter, gauge, histogram };

/// Writes metrics, one family after the other.
class MetricsText {
 public:
  using Labels = std::vector<std::pair<std::string_view, std::string>>;

  explicit MetricsText(MetricsForm form) : form_(form) {}

  /// Begins a family. `name` without the "_total" of a counter; `help` is one sentence in plain characters.
  void family(std::string_view name, MetricKind kind, std::string_view help);
  /// A sample of the family that was begun last. `suffix`: "_bucket", "_sum" or "_count" of a histogram.
  /// Values of labels may be any text.
  void sample(const Labels& labels, double value, std::string_view suffix = {});

  /// All of it; nothing is written afterwards.
  std::string finish();

 private:
  MetricsForm form_;
  std::string name_;
  MetricKind kind_ = MetricKind::gauge;
  std::string text_;
};

/// A number as both forms write it: whole numbers without a fraction, others so that they read back as the
/// same.
std::string metricNumber(double value);

}  // namespace tessard
