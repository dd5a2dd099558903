#include "ServerFixture.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>

#include "network/NetworkConfiguration.h"
#include "support/Debug.h"
#include "support/Tools.h"
#include "x509/Inspection.h"

namespace servertest {

using keywarden::InternalCertificatesAccessor;
using keywarden::NetworkInfo;
using keywarden::Server;
using keywarden::ServiceConfiguration;
using testsupport::CapturedLog;
using testsupport::TestClock;
using testsupport::TestDevice;

void RecordingCallbacks::newGeneratedCertificate(const std::string& id) {
    events.push_back("new " + id);
    if (onNew)
        onNew(id);
}

void RecordingCallbacks::updateValidityGeneratedCertificate(int validIn, int expireIn) {
    events.push_back("validity " + std::to_string(validIn) + " " + std::to_string(expireIn));
}

void RecordingCallbacks::newExternalCertificate(const std::string& store, const std::string& id) {
    events.push_back("new in " + store + " " + id);
}

void RecordingCallbacks::revokedExternalCertificate(const std::string& store, const std::string& id) {
    events.push_back("revoked in " + store + " " + id);
}

void RecordingCallbacks::revokedExternalCertificate(const std::string& store,
                                                    const std::vector<std::string>& ids) {
    events.push_back("revoked in " + store + " " + std::to_string(ids.size()));
}

CapturedTraces::CapturedTraces() : standardError_(std::cerr.rdbuf(captured_.rdbuf())) {
    keywarden::gDebug = true;
}

CapturedTraces::~CapturedTraces() {
    keywarden::gDebug = false;
    std::cerr.rdbuf(standardError_);
}

std::string CapturedTraces::text() const {
    return captured_.str();
}

std::vector<std::string> CapturedTraces::lines() const {
    std::vector<std::string> all;
    std::istringstream in(captured_.str());
    for (std::string line; std::getline(in, line);)
        all.push_back(line);
    return all;
}

OnTrace::OnTrace(std::string line, std::function<void()> action)
    : listener_(std::move(line), std::move(action)), standardError_(std::cerr.rdbuf(&listener_)) {
    keywarden::gDebug = true;
}

OnTrace::~OnTrace() {
    keywarden::gDebug = false;
    std::cerr.rdbuf(standardError_);
}

int OnTrace::Listener::sync() {
    const bool heard = str().find(line_ + "\n") != std::string::npos;
    str("");
    if (heard && action_)
        std::exchange(action_, nullptr)();
    return 0;
}

TakenFolder::TakenFolder(std::string path) : path_(std::move(path)) {
    EXPECT_EQ(0, ::chown(path_.c_str(), 65534, static_cast<gid_t>(-1)));
}

TakenFolder::~TakenFolder() {
    EXPECT_EQ(0, ::chown(path_.c_str(), 0, static_cast<gid_t>(-1)));
}

FileSizeLimit::FileSizeLimit(unsigned size) : earlier_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &limits_));
    const rlimit lower{size, limits_.rlim_max};
    EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &lower));
}

FileSizeLimit::~FileSizeLimit() {
    EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limits_));
    (void)std::signal(SIGXFSZ, earlier_);
}

ServerTest::ServerTest() {
    static unsigned count = 0;
    id = "srv" + std::to_string(++count);
    cnfFile = scratch("settings.cnf",
                      "CONFIG_KEY PRIME256V1\n"
                      "CN unit.example\n"
                      "C US\nST NC\nL Millbrook\nO Example\nOU Unit\n"
                      "subjectKeyIdentifier hash\n"
                      "basicConstraints critical,CA:TRUE\n");
    ::umask(0);  // as the daemon runs
    TestClock::set(kNow);
    setNetwork("");
    clearLog();
}

ServerTest::~ServerTest() {
    TestClock::reset();
}

void ServerTest::configureOther(const std::string& otherId, const std::string& lines) const {
    const TestDevice& device = TestDevice::get();
    device.writeService(otherId, std::string("server yes\nmanagmentGroup ") + kManagementGroup +
                                     "\nkeyGroup " + kKeyGroup + "\n" + lines + "\n");
    keywarden::Tools::createDirectory(device.keywardDirectory() + "/" + otherId, 0711);
    keywarden::Tools::createDirectory(device.pipesDirectory() + "/" + otherId, 0770);
}

void ServerTest::configure(const std::string& lines) {
    const bool hasSettings = lines.find("cnfHookFile") != std::string::npos;
    configureOther(id, lines + "\n" + (hasSettings ? "" : "cnfFile " + cnfFile));
    configuration_ = std::make_unique<ServiceConfiguration>(id);
}

Server& ServerTest::start() {
    if (!configuration_)
        configure();
    server_.reset();
    server_ = std::make_unique<Server>(*configuration_, callbacks);
    return *server_;
}

Server& ServerTest::restart() {
    clearLog();
    callbacks->events.clear();
    return start();
}

InternalCertificatesAccessor ServerTest::store() const {
    return {id, "server"};
}

MadePair ServerTest::makePair(const testsupport::CertificateOptions& options,
                              const testsupport::IssuedCertificate* issuer) {
    const testsupport::IssuedCertificate issued = testsupport::makeCertificate(options, issuer);
    static unsigned count = 0;
    const std::string keyPath =
        sandbox().write("scratch/pair" + std::to_string(++count) + ".key", issued.keyPem, 0600);
    MadePair pair{keywarden::X509_T::fromPem(issued.certificatePem), keywarden::EVP_PKEY_T(keyPath), "",
                  issued.certificatePem, issued.keyPem};
    pair.id = keywarden::subjectNameHash(pair.certificate) + ".0";
    return pair;
}

MadePair ServerTest::makePair(const std::string& commonName) {
    testsupport::CertificateOptions options;
    options.commonName = commonName;
    return makePair(options);
}

MadePair ServerTest::install(const testsupport::CertificateOptions& options,
                             const testsupport::IssuedCertificate* issuer) {
    MadePair pair = makePair(options, issuer);
    server().installCertificate(pair.certificate, pair.key, noNetwork());
    return pair;
}

MadePair ServerTest::install(const std::string& commonName) {
    testsupport::CertificateOptions options;
    options.commonName = commonName;
    return install(options);
}

NetworkInfo ServerTest::noNetwork() {
    return NetworkInfo(std::string("/nonexistent"));
}

void ServerTest::setNetwork(const std::string& printed) {
    TestDevice::get().setNetwork(printed);
    keywarden::NetworkConfiguration::getInstance().reload();
}

std::string ServerTest::scratch(const std::string& name, const std::string& content) const {
    return sandbox().write("scratch/" + id + "/" + name, content);
}

std::string readFile(const std::string& path) {
    return testsupport::Sandbox::read(path);
}

std::string fingerprint(const std::string& secret) {
    return std::to_string(secret.size()) + " bytes " + std::to_string(std::hash<std::string>()(secret));
}

bool exists(const std::string& path) {
    return testsupport::Sandbox::exists(path);
}

std::string rightsOf(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return "missing";
    const group* const entry = ::getgrgid(info.st_gid);
    std::ostringstream text;
    text << std::oct << std::setw(4) << std::setfill('0') << (info.st_mode & 07777U) << ' '
         << (entry != nullptr ? entry->gr_name : "?");
    return text.str();
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string filesOf(const InternalCertificatesAccessor& store, const std::string& id) {
    const std::vector<std::pair<std::string, std::string>> files = {
        {"cert", store.certPath(id)},           {"key", store.certKeyPath(id)},
        {"info", store.certInfoPath(id)},       {"network", store.certNetworkPath(id)},
        {"details", store.certDetailsPath(id)}, {"overwrite", store.certOverwrittenDataPath(id)}};
    std::string standing;
    for (const auto& [word, path] : files)
        standing += exists(path) ? word + " " : "";
    return standing;
}

}  // namespace servertest
