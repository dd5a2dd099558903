#include "ctl/Prometheus.h"

#include <gtest/gtest.h>

using namespace keywardctl;

namespace {

TEST(PrometheusText, LabelsAreEscaped) {
    EXPECT_EQ(PrometheusText::escaped("plain M\xc3\xbcnchen"), "plain M\xc3\xbcnchen");
    EXPECT_EQ(PrometheusText::escaped("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
    EXPECT_EQ(PrometheusText::escaped("\xff"), "?");
}

TEST(PrometheusText, AMetricWithoutSamplesLeavesNothing) {
    PrometheusText out;
    out.gauge("empty", "Nothing.");
    out.gauge("full", "Something.");
    out.sample({{"a", "1"}, {"b", "x\"y"}}, "2");
    out.sample({}, "3");
    EXPECT_EQ(out.text(),
              "# HELP full Something.\n# TYPE full gauge\nfull{a=\"1\",b=\"x\\\"y\"} 2\nfull 3\n");
}

TEST(Metrics, OfADeviceWithoutServicesAndDaemon) {
    EXPECT_EQ(metricsOf({}, 0, false),
              "# HELP keyward_up Whether the certificate daemon runs, 1 or 0.\n"
              "# TYPE keyward_up gauge\n"
              "keyward_up 0\n");
}

TEST(Metrics, OfOneService) {
    ServiceView view;
    view.service = "we\"b";
    view.state = State::Stopped;
    view.requestPending = true;
    view.caCertificates = 2;
    view.names.state = NamesView::State::Differing;
    ServiceView::Certificate certificate;
    certificate.id = "0a1b2c3d.0";
    certificate.kind = Kind::LocalCA;
    certificate.facts.notBefore = 1000;
    certificate.facts.notAfter = 5000000000;
    certificate.installedAt = 2000;
    view.certificate = certificate;
    EXPECT_EQ(metricsOf({view}, 5000000000 + 43200, true),
              R"(# HELP keyward_up Whether the certificate daemon runs, 1 or 0.
# TYPE keyward_up gauge
keyward_up 1
# HELP keyward_service_running Whether the service runs, 1 or 0.
# TYPE keyward_service_running gauge
keyward_service_running{service="we\"b"} 0
# HELP keyward_certificate_days_left Days until the certificate ends, negative afterwards.
# TYPE keyward_certificate_days_left gauge
keyward_certificate_days_left{service="we\"b"} -0.5000
# HELP keyward_certificate_not_before_seconds Start of the certificate, seconds since the epoch.
# TYPE keyward_certificate_not_before_seconds gauge
keyward_certificate_not_before_seconds{service="we\"b"} 1000
# HELP keyward_certificate_not_after_seconds End of the certificate, seconds since the epoch.
# TYPE keyward_certificate_not_after_seconds gauge
keyward_certificate_not_after_seconds{service="we\"b"} 5000000000
# HELP keyward_certificate_info The certificate: its id and who issued it; always 1.
# TYPE keyward_certificate_info gauge
keyward_certificate_info{service="we\"b",kind="local_ca",id="0a1b2c3d.0"} 1
# HELP keyward_last_renewal_seconds When the certificate was installed, seconds since the epoch.
# TYPE keyward_last_renewal_seconds gauge
keyward_last_renewal_seconds{service="we\"b"} 2000
# HELP keyward_certificate_names_match Whether the certificate has all names and addresses that the device has now, 1 or 0.
# TYPE keyward_certificate_names_match gauge
keyward_certificate_names_match{service="we\"b"} 0
# HELP keyward_request_pending Whether a signing request waits for its certificate, 1 or 0.
# TYPE keyward_request_pending gauge
keyward_request_pending{service="we\"b"} 1
# HELP keyward_store_certificates How many certificates a store of trusted ones holds.
# TYPE keyward_store_certificates gauge
keyward_store_certificates{service="we\"b",store="ca"} 2
)");
}

TEST(Metrics, WhatIsNotKnownIsNotGuessed) {
    ServiceView view;
    view.service = "web";
    const std::string text = metricsOf({view}, 0, true);
    EXPECT_EQ(text.find("running{"), std::string::npos);
    EXPECT_EQ(text.find("names_match"), std::string::npos);
    EXPECT_EQ(text.find("request_pending"), std::string::npos);
    EXPECT_NE(text.find("keyward_certificate_info{service=\"web\",kind=\"none\",id=\"\"} 1\n"),
              std::string::npos);
}

}  // namespace
