#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ctl/ServiceView.h"

namespace keywardctl {

/// Builds text in the format that Prometheus and its textfile collector read: each metric with its help and
/// type, then its samples.
class PrometheusText {
  public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    /// Starts a metric; samples follow. A metric without samples leaves nothing.
    void gauge(const std::string& name, const std::string& help);
    void sample(const Labels& labels, const std::string& value);

    [[nodiscard]] std::string text() const { return text_; }
    /// Backslash, quote and line feed are escaped.
    [[nodiscard]] static std::string escaped(const std::string& label);

  private:
    std::string name_;
    std::string heading_;
    std::string text_;
};

/// Every metric of the device.
[[nodiscard]] std::string metricsOf(const std::vector<ServiceView>& views, std::int64_t now, bool daemonRuns);

}  // namespace keywardctl
