#include "tests/unit/x509/X509Fixture.h"

#include <array>
#include <cstdio>
#include <memory>

using testsupport::CapturedLog;
using testsupport::TestClock;

namespace {

kwdata::v3Ext extension(const std::string& name, const std::string& value) {
    return {name, value, value, ""};
}

}  // namespace

X509Fixture::X509Fixture() {
    TestClock::set(kNow);
    CapturedLog::clear();
    ERR_clear_error();
}

X509Fixture::~X509Fixture() {
    EXPECT_EQ(ERR_peek_error(), 0U) << "an error was left in the queue";
    TestClock::reset();
}

kwdata::CCertificateData X509Fixture::settings() {
    kwdata::CCertificateData data;
    data.subject = {"FR", "Isere", "Ville", "Firm, Inc.", {"one", "two"}, "host.local", "a@b.example"};
    data.public_key_type = keywarden::KEY_PRIME256V1;
    data.validNotBeforeDate = kNow;
    data.validNotAfterDate = kNow + 365 * kDay;
    data.v3Extention = {
        extension("subjectKeyIdentifier", "hash"),
        extension("basicConstraints", "critical,CA:FALSE"),
        extension("keyUsage", "critical,digitalSignature"),
        extension("extendedKeyUsage", "serverAuth"),
        extension("subjectAltName", "DNS.1:host.local,DNS.2:10.0.0.5,IP.1:10.0.0.5"),
    };
    return data;
}

std::string X509Fixture::failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no failure";
}

void X509Fixture::expectLog(const std::vector<testsupport::LogLine>& lines) {
    EXPECT_EQ(CapturedLog::lines(), lines);
}

std::string X509Fixture::openssl(const std::string& arguments, const std::string& pem) const {
    std::string command = arguments;
    const std::string file = sandbox_.write("openssl.pem", pem);
    for (std::size_t at = command.find("{}"); at != std::string::npos;
         at = command.find("{}", at + file.size())) {
        command.replace(at, 2, file);
    }
    return openssl(command);
}

std::string X509Fixture::openssl(const std::string& arguments) const {
    const std::string command = "cd " + sandbox_.path() + " && openssl " + arguments + " 2>&1 </dev/null";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::string answer;
    std::array<char, 4096> part{};
    while (pipe && std::fgets(part.data(), static_cast<int>(part.size()), pipe.get()) != nullptr) {
        answer += part.data();
    }
    return answer;
}

const keywarden::EVP_PKEY_T& X509Fixture::key() {
    static const keywarden::EVP_PKEY_T made(settings());
    return made;
}
