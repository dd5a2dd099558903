#pragma once

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cnf/CCertificateData.h"
#include "tests/unit/x509/CryptoFault.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/Sandbox.h"
#include "testsupport/TestClock.h"
#include "testsupport/Traces.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/KeyTypes.h"
#include "x509/X509_REQ_T.h"
#include "x509/X509_T.h"

/// 2026-03-01 00:00:00, at which the clock of these tests stands still.
constexpr std::int64_t kNow = 1772323200;
constexpr std::int64_t kDay = 86400;

/// A folder, an empty log and a clock that stands still. No test may leave an error in libcrypto's queue.
class X509Fixture : public testing::Test {
  protected:
    X509Fixture();
    ~X509Fixture() override;

    /// P-256 settings of a year from now, with a subject of every kind of entry.
    static kwdata::CCertificateData settings();
    /// The text of the std::runtime_error that the action ends in.
    static std::string failureOf(const std::function<void()>& action);
    static void expectLog(const std::vector<testsupport::LogLine>& lines);

    /// What another program, the openssl command, says of a PEM text: "{}" in the arguments stands for the
    /// file the text is in. Its standard error is part of the answer.
    std::string openssl(const std::string& arguments, const std::string& pem) const;
    std::string openssl(const std::string& arguments) const;

    /// The key of every test that does not care for it.
    static const keywarden::EVP_PKEY_T& key();

    testsupport::Sandbox sandbox_;
};
