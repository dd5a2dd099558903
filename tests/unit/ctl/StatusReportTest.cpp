#include "ctl/StatusReport.h"

#include <gtest/gtest.h>

using namespace keywardctl;

namespace {

constexpr std::int64_t kNow = 1800000000;
constexpr std::int64_t kDay = 86400;

ServiceView runningView(const std::string& service, std::int64_t secondsLeft) {
    ServiceView view;
    view.service = service;
    view.state = State::Running;
    view.requestPending = false;
    view.names.state = NamesView::State::Matching;
    ServiceView::Certificate certificate;
    certificate.id = "0a1b2c3d.0";
    certificate.kind = Kind::SelfSigned;
    certificate.facts.notBefore = kNow - kDay;
    certificate.facts.notAfter = kNow + secondsLeft;
    certificate.installedAt = kNow - 10;
    view.certificate = certificate;
    return view;
}

ServiceView differingView() {
    ServiceView view = runningView("broker", -1);
    view.state = State::Stopped;
    view.certificate->kind = Kind::LocalCA;
    view.certificate->issuedBy = "pkiroot";
    view.names = {NamesView::State::Differing, {"10.0.0.9", "new.test"}};
    view.requestPending = true;
    view.caCertificates = 0;
    view.clientCertificates = 12;
    return view;
}

ServiceView emptyView() {
    ServiceView view;
    view.service = "x";
    view.problems = {"why"};
    return view;
}

TEST(StatusText, OneLineAService) {
    EXPECT_EQ(
        statusText({runningView("web", 3 * kDay), differingView(), emptyView()}, kNow, false),
        "SERVICE  STATE    CERTIFICATE  DAYS  REQUEST  CAS  CLIENTS  NAMES\n"
        "web      running  self-signed  3     no       -    -        ok\n"
        "broker   stopped  local CA     -1    pending  0    12       differs, missing 10.0.0.9 new.test\n"
        "x        unknown  none         -     unknown  -    -        -\n");
}

TEST(StatusText, ColoursTellGoodFromBad) {
    EXPECT_EQ(statusText({runningView("web", 30 * kDay)}, kNow, true),
              "SERVICE  STATE    CERTIFICATE  DAYS  REQUEST  CAS  CLIENTS  NAMES\n"
              "web      \033[32mrunning\033[0m  self-signed  \033[32m30\033[0m    no       -    -        "
              "\033[32mok\033[0m\n");
    EXPECT_NE(statusText({runningView("web", 6 * kDay)}, kNow, true).find("\033[33m6\033[0m"),
              std::string::npos);
    EXPECT_NE(statusText({differingView()}, kNow, true).find("\033[31m-1\033[0m"), std::string::npos);
}

TEST(StatusJson, ExactBytes) {
    EXPECT_EQ(
        statusJson({runningView("web", 3 * kDay), differingView(), emptyView()}, kNow, true),
        R"({"version":1,"daemon_running":true,"services":[)"
        R"({"service":"web","state":"running","certificate":{"id":"0a1b2c3d.0","kind":"self_signed",)"
        R"("issued_by":null,"not_before":1799913600,"not_after":1800259200,"days_left":3,)"
        R"("installed_at":1799999990},"names":{"state":"ok","missing":[]},"request_pending":false,)"
        R"("ca_certificates":null,"client_certificates":null,"problems":[]},)"
        R"({"service":"broker","state":"stopped","certificate":{"id":"0a1b2c3d.0","kind":"local_ca",)"
        R"("issued_by":"pkiroot","not_before":1799913600,"not_after":1799999999,"days_left":-1,)"
        R"("installed_at":1799999990},"names":{"state":"differs","missing":["10.0.0.9","new.test"]},)"
        R"("request_pending":true,"ca_certificates":0,"client_certificates":12,"problems":[]},)"
        R"({"service":"x","state":"unknown","certificate":null,"names":{"state":"none","missing":[]},)"
        R"("request_pending":null,"ca_certificates":null,"client_certificates":null,"problems":["why"]}]})"
        "\n");
    EXPECT_EQ(statusJson({}, kNow, false), "{\"version\":1,\"daemon_running\":false,\"services\":[]}\n");
}

}  // namespace
