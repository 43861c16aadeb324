#include "host/MetricsText.h"

#include <array>
#include <charconv>
#include <cmath>

namespace tessard {

namespace {

const char* wordFor(MetricKind kind) {
  switch (kind) {
    case MetricKind::counter:
      return "counter";
    case MetricKind::gauge:
      return "gauge";
    case MetricKind::histogram:
      break;
  }
  return "histogram";
}

std::string quoted(std::string_view value) {
  std::string text = "\"";
  for (const char each : value) {
    if (each == '\\' || each == '"') text += '\\';
    if (each == '\n') {
      text += "\\n";
    } else {
      text += each;
    }
  }
  return text + '"';
}

}  // namespace

std::string metricNumber(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  std::array<char, 32> buffer{};
  // Up to here every whole number is a double of its own.
  constexpr double kMostWhole = 9007199254740992.0;
  const bool isWhole = std::floor(value) == value && std::fabs(value) <= kMostWhole;
  const auto written = isWhole ? std::to_chars(buffer.begin(), buffer.end(), static_cast<long long>(value))
                               : std::to_chars(buffer.begin(), buffer.end(), value);
  return {buffer.begin(), written.ptr};
}

void MetricsText::family(std::string_view name, MetricKind kind, std::string_view help) {
  name_ = name;
  kind_ = kind;
  if (kind == MetricKind::counter && form_ == MetricsForm::prometheusText) name_ += "_total";
  text_ += "# HELP " + name_ + " ";
  text_ += help;
  text_ += "\n# TYPE " + name_ + " " + wordFor(kind) + "\n";
  if (kind == MetricKind::counter && form_ == MetricsForm::openMetrics) name_ += "_total";
}

void MetricsText::sample(const Labels& labels, double value, std::string_view suffix) {
  text_ += name_;
  text_ += suffix;
  const char* between = "{";
  for (const auto& [label, content] : labels) {
    text_ += between;
    text_ += label;
    text_ += "=" + quoted(content);
    between = ",";
  }
  if (!labels.empty()) text_ += "}";
  text_ += " " + metricNumber(value) + "\n";
}

std::string MetricsText::finish() {
  if (form_ == MetricsForm::openMetrics) text_ += "# EOF\n";
  return std::move(text_);
}

}  // namespace tessard
