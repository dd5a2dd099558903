#include <algorithm>
#include <stdexcept>

#include "ctl/check/RequestProbe.h"
#include "ctl/check/Rules.h"
#include "ctl/check/StoredPair.h"

namespace keywardctl::check {

namespace {

constexpr const char* kPki = "pki";

bool isEarly(const std::string& id) {
    return id.compare(0, std::string(kPki).size(), kPki) == 0;
}

/// Its certificate when there is one, otherwise the one that its settings would give; true when nobody can
/// tell.
bool isAuthority(const CheckedFile& authority, const std::string& id) {
    const StoredCertificate active = activeCertificateOf(id);
    if (active.certificate.get() != nullptr)
        return isCertificateAuthority(active.certificate);
    if (!authority.values.has(ServiceKey::CnfFile))
        return true;
    try {
        return RequestProbe(
                   ConfigLines::read(authority.values.text(ServiceKey::CnfFile), Dialect::Settings).values())
            .makesAuthority();
    } catch (const std::runtime_error&) {
        return true;
    }
}

void checkKnown(const CheckedFile& file, const CheckedFile& authority, const std::string& id,
                Report& report) {
    const Place place = file.at(ServiceKey::CAServiceId);
    if (!authority.values.isYes(ServiceKey::Server))
        report.add(Code::AuthorityWithoutServer, place,
                   "the service " + quoted(id) + " has no certificate of its own to sign with",
                   "Write 'server yes' into " + authority.lines.file() + ".");
    else if (!isAuthority(authority, id))
        report.add(Code::AuthorityNoCa, place,
                   "the certificate of the service " + quoted(id) + " is not a CA's",
                   "Its settings need 'basicConstraints critical,CA:TRUE' and 'keyUsage "
                   "critical,keyCertSign,cRLSign'.");
}

}  // namespace

void checkAuthority(const Subject& subject, const CheckedService& service, Report& report) {
    const CheckedFile& file = service.file;
    const std::string id = file.values.text(ServiceKey::CAServiceId);
    const Place place = file.at(ServiceKey::CAServiceId);
    if (!file.values.isYes(ServiceKey::CASignedGeneration) &&
        !file.values.isYes(ServiceKey::CASignedOnExpiration))
        return;
    const auto& all = subject.allServices;
    if (id.empty()) {
        report.add(Code::NoAuthority, file.whole(), "'CAServiceId' is missing: nobody signs the certificate",
                   "Name the service that is the authority.");
        return;
    }
    if (id == service.id)
        report.add(Code::OwnAuthority, place, "a service cannot be its own authority",
                   "Name another service, or use 'selfSignedGeneration yes' instead.");
    else if (std::find(all.begin(), all.end(), id) == all.end())
        report.add(Code::UnknownAuthority, place, "there is no service " + quoted(id),
                   "'CAServiceId' is the name of a service file without '.conf'.");
    else
        try {
            const std::string path =
                subject.daemon.values.text(DaemonKey::ServiceConfigDirectory) + "/" + id + ".conf";
            checkKnown(file, CheckedFile(ConfigLines::read(path, Dialect::Configuration)), id, report);
            if (!isEarly(id))
                report.add(Code::AuthorityOrder, place,
                           "the service " + quoted(id) +
                               " may be started after this one, before it has a "
                               "certificate to sign with",
                           "Begin its name with 'pki': such services are started before all others.");
        } catch (const std::runtime_error& error) {
            report.addNotLookedAt(id + ".conf", error.what());
        }
}

}  // namespace keywardctl::check
