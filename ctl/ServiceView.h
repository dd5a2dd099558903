#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "ctl/CertificateFacts.h"
#include "ctl/Deadline.h"
#include "ctl/Device.h"

namespace keywardctl {

enum class State { Running, Stopped, NotRunning, Unknown };
enum class Kind { None, SelfSigned, LocalCA, External };

/// How a certificate's names stand to the names and addresses that it should have now.
struct NamesView {
    enum class State { Matching, Differing, Unknown, None };
    State state = State::None;
    std::vector<std::string> missing;
};

/// What is known about one service, all of it from files that everybody may read and, for the state, from the
/// daemon's own answer.
struct ServiceView {
    struct Certificate {
        std::string id;
        Kind kind = Kind::None;
        std::string issuedBy;  ///< the local service, for Kind::LocalCA
        CertificateFacts facts;
        std::int64_t installedAt = 0;
    };

    std::string service;
    State state = State::Unknown;
    std::optional<Certificate> certificate;
    NamesView names;
    std::optional<bool> requestPending;
    std::optional<std::int64_t> caCertificates;  ///< none: the service has no such store
    std::optional<std::int64_t> clientCertificates;
    std::vector<std::string> problems;  ///< what could not be learnt, and why
};

/// Everything but the state.
[[nodiscard]] ServiceView viewOf(const Device& device, const std::string& service);

/// Asks the daemon for the state; why it could not be learnt is added to the problems.
void askState(ServiceView& view, const Device& device, const Deadline& deadline);

/// Who issued a service's own certificate. `others` are looked through for the issuer, in their order.
[[nodiscard]] Kind kindOf(const keywarden::X509_T& certificate, const std::string& service,
                          const std::vector<std::string>& others, std::string& issuedBy);

// Words for people ("local CA") and for programs ("local_ca").
[[nodiscard]] std::string wordsOf(Kind kind);
[[nodiscard]] std::string nameOf(Kind kind);
[[nodiscard]] std::string wordsOf(State state);
[[nodiscard]] std::string nameOf(State state);
[[nodiscard]] std::string nameOf(NamesView::State state);

}  // namespace keywardctl
