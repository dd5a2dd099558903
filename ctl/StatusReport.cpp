#include "ctl/StatusReport.h"

#include "ctl/Json.h"
#include "ctl/Table.h"
#include "ctl/Text.h"

namespace keywardctl {

namespace {

constexpr const char* kNone = "-";
constexpr std::int64_t kFewDays = 7;

Cell stateCell(const ServiceView& view) {
    switch (view.state) {
        case State::Running:
            return {wordsOf(view.state), Colour::Good};
        case State::Unknown:
            return {wordsOf(view.state), Colour::Doubtful};
        default:
            return {wordsOf(view.state), Colour::Bad};
    }
}

Cell kindCell(const ServiceView& view) {
    return {wordsOf(view.certificate ? view.certificate->kind : Kind::None)};
}

Cell daysCell(const ServiceView& view, std::int64_t now) {
    if (!view.certificate)
        return {kNone};
    const std::int64_t days = daysUntil(view.certificate->facts.notAfter, now);
    const Colour colour = days < 0 ? Colour::Bad : days < kFewDays ? Colour::Doubtful : Colour::Good;
    return {std::to_string(days), colour};
}

Cell requestCell(const ServiceView& view) {
    if (!view.requestPending)
        return {"unknown", Colour::Doubtful};
    return *view.requestPending ? Cell{"pending", Colour::Doubtful} : Cell{"no"};
}

Cell countCell(const std::optional<std::int64_t>& count) {
    return {count ? std::to_string(*count) : kNone};
}

Cell namesCell(const ServiceView& view) {
    switch (view.names.state) {
        case NamesView::State::Matching:
            return {"ok", Colour::Good};
        case NamesView::State::Differing:
            return {printable("differs, missing " + joined(view.names.missing, " ")), Colour::Bad};
        case NamesView::State::Unknown:
            return {"unknown", Colour::Doubtful};
        default:
            return {kNone};
    }
}

Json certificateJson(const ServiceView::Certificate& certificate, std::int64_t now) {
    const std::optional<std::string> issuedBy =
        certificate.issuedBy.empty() ? std::nullopt : std::make_optional(certificate.issuedBy);
    Json json;
    json.text("id", certificate.id)
        .text("kind", nameOf(certificate.kind))
        .text("issued_by", issuedBy)
        .number("not_before", certificate.facts.notBefore)
        .number("not_after", certificate.facts.notAfter)
        .number("days_left", daysUntil(certificate.facts.notAfter, now))
        .number("installed_at", certificate.installedAt);
    return json;
}

Json viewJson(const ServiceView& view, std::int64_t now) {
    Json json;
    json.text("service", view.service).text("state", nameOf(view.state));
    if (view.certificate)
        json.object("certificate", certificateJson(*view.certificate, now));
    else
        json.null("certificate");
    Json names;
    names.text("state", nameOf(view.names.state)).texts("missing", view.names.missing);
    json.object("names", names)
        .flag("request_pending", view.requestPending)
        .number("ca_certificates", view.caCertificates)
        .number("client_certificates", view.clientCertificates)
        .texts("problems", view.problems);
    return json;
}

}  // namespace

std::string statusText(const std::vector<ServiceView>& views, std::int64_t now, bool colours) {
    Table table({"SERVICE", "STATE", "CERTIFICATE", "DAYS", "REQUEST", "CAS", "CLIENTS", "NAMES"});
    for (const ServiceView& view : views)
        table.add({{printable(view.service)},
                   stateCell(view),
                   kindCell(view),
                   daysCell(view, now),
                   requestCell(view),
                   countCell(view.caCertificates),
                   countCell(view.clientCertificates),
                   namesCell(view)});
    return table.text(colours);
}

std::string statusJson(const std::vector<ServiceView>& views, std::int64_t now, bool daemonRuns) {
    std::vector<Json> services;
    services.reserve(views.size());
    for (const ServiceView& view : views)
        services.push_back(viewJson(view, now));
    return Json::answer().flag("daemon_running", daemonRuns).objects("services", services).line();
}

}  // namespace keywardctl
