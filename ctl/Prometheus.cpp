#include "ctl/Prometheus.h"

#include <array>
#include <cstdio>
#include <functional>

#include "ctl/Text.h"

namespace keywardctl {

namespace {

constexpr double kDay = 86400.0;

std::string number(std::int64_t value) {
    return std::to_string(value);
}

std::string daysText(std::int64_t seconds) {
    std::array<char, 64> text{};
    (void)std::snprintf(text.data(), text.size(), "%.4f", static_cast<double>(seconds) / kDay);
    return text.data();
}

using Certificate = ServiceView::Certificate;

void addStates(PrometheusText& out, const std::vector<ServiceView>& views) {
    out.gauge("keyward_service_running", "Whether the service runs, 1 or 0.");
    for (const ServiceView& view : views) {
        if (view.state != State::Unknown)
            out.sample({{"service", view.service}}, number(view.state == State::Running ? 1 : 0));
    }
}

void addCertificates(PrometheusText& out, const std::vector<ServiceView>& views, std::int64_t now) {
    const auto each = [&](const std::string& name, const std::string& help,
                          const std::function<std::string(const Certificate&)>& value) {
        out.gauge(name, help);
        for (const ServiceView& view : views) {
            if (view.certificate)
                out.sample({{"service", view.service}}, value(*view.certificate));
        }
    };
    each("keyward_certificate_days_left", "Days until the certificate ends, negative afterwards.",
         [now](const Certificate& one) { return daysText(one.facts.notAfter - now); });
    each("keyward_certificate_not_before_seconds", "Start of the certificate, seconds since the epoch.",
         [](const Certificate& one) { return number(one.facts.notBefore); });
    each("keyward_certificate_not_after_seconds", "End of the certificate, seconds since the epoch.",
         [](const Certificate& one) { return number(one.facts.notAfter); });
    out.gauge("keyward_certificate_info", "The certificate: its id and who issued it; always 1.");
    for (const ServiceView& view : views) {
        const std::string kind = nameOf(view.certificate ? view.certificate->kind : Kind::None);
        out.sample({{"service", view.service},
                    {"kind", kind},
                    {"id", view.certificate ? view.certificate->id : std::string()}},
                   "1");
    }
    each("keyward_last_renewal_seconds", "When the certificate was installed, seconds since the epoch.",
         [](const Certificate& one) { return number(one.installedAt); });
}

void addNames(PrometheusText& out, const std::vector<ServiceView>& views) {
    out.gauge("keyward_certificate_names_match",
              "Whether the certificate has all names and addresses that the device has now, 1 or 0.");
    for (const ServiceView& view : views) {
        const bool matching = view.names.state == NamesView::State::Matching;
        if (matching || view.names.state == NamesView::State::Differing)
            out.sample({{"service", view.service}}, number(matching ? 1 : 0));
    }
}

void addStores(PrometheusText& out, const std::vector<ServiceView>& views) {
    out.gauge("keyward_request_pending", "Whether a signing request waits for its certificate, 1 or 0.");
    for (const ServiceView& view : views) {
        if (view.requestPending)
            out.sample({{"service", view.service}}, number(*view.requestPending ? 1 : 0));
    }
    out.gauge("keyward_store_certificates", "How many certificates a store of trusted ones holds.");
    for (const ServiceView& view : views) {
        if (view.caCertificates)
            out.sample({{"service", view.service}, {"store", "ca"}}, number(*view.caCertificates));
        if (view.clientCertificates)
            out.sample({{"service", view.service}, {"store", "client"}}, number(*view.clientCertificates));
    }
}

}  // namespace

void PrometheusText::gauge(const std::string& name, const std::string& help) {
    name_ = name;
    heading_ = "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n";
}

void PrometheusText::sample(const Labels& labels, const std::string& value) {
    std::string list;
    for (const auto& [label, text] : labels)
        list += (list.empty() ? "" : ",") + label + "=\"" + escaped(text) + "\"";
    text_ += heading_ + name_ + (list.empty() ? "" : "{" + list + "}") + " " + value + "\n";
    heading_.clear();
}

std::string PrometheusText::escaped(const std::string& label) {
    std::string text;
    for (const char character : validUtf8(label)) {
        if (character == '\\' || character == '"')
            text += '\\';
        text += character == '\n' ? std::string("\\n") : std::string(1, character);
    }
    return text;
}

std::string metricsOf(const std::vector<ServiceView>& views, std::int64_t now, bool daemonRuns) {
    PrometheusText out;
    out.gauge("keyward_up", "Whether the certificate daemon runs, 1 or 0.");
    out.sample({}, number(daemonRuns ? 1 : 0));
    addStates(out, views);
    addCertificates(out, views, now);
    addNames(out, views);
    addStores(out, views);
    return out.text();
}

}  // namespace keywardctl
