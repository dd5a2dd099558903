#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "callbacks/Delivery.h"
#include "callbacks/ServiceCallbacks.h"
#include "config/InternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "server/Server.h"
#include "support/KeywardenDaemonException.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/TestClock.h"
#include "testsupport/TestDevice.h"

namespace servertest {

/// 2024-06-15 13:45:00 UTC, a Saturday.
constexpr std::int64_t kNow = 1718459100;
constexpr std::int64_t kDay = 86400;
/// The last second at which the clock counts as never set.
constexpr std::int64_t kOldClock = 946555199;

// Groups of every Debian system, unlike the test's own.
constexpr const char* kManagementGroup = "daemon";
constexpr const char* kKeyGroup = "adm";

/// Writes down what the owner is told. `onNew` looks at the store at that moment, or throws.
class RecordingCallbacks : public keywarden::ServiceCallbacks, public keywarden::Delivery {
  public:
    void started() override { events.emplace_back("started"); }
    void stopped() override { events.emplace_back("stopped"); }
    void allStarted() override { events.emplace_back("allStarted"); }
    void newGeneratedCertificate(const std::string& id) override;
    void updateValidityGeneratedCertificate(int validIn, int expireIn) override;
    void newExternalCertificate(const std::string& store, const std::string& id) override;
    void revokedExternalCertificate(const std::string& store, const std::string& id) override;
    void revokedExternalCertificate(const std::string& store, const std::vector<std::string>& ids) override;

    [[nodiscard]] bool lastEventWasDelivered() const override { return delivers; }

    std::vector<std::string> events;
    std::function<void(const std::string& id)> onNew;
    bool delivers = true;  ///< false: as if a stop had cut the script off
};

/// Standard error while the debug flag is set: traces and log lines in their order.
class CapturedTraces {
  public:
    CapturedTraces();
    CapturedTraces(const CapturedTraces&) = delete;
    CapturedTraces& operator=(const CapturedTraces&) = delete;
    ~CapturedTraces();

    [[nodiscard]] std::vector<std::string> lines() const;
    [[nodiscard]] std::string text() const;

  private:
    std::ostringstream captured_;
    std::streambuf* standardError_;
};

/// Runs the action once, when the debug trace is written: a moment in the middle of an operation.
class OnTrace {
  public:
    OnTrace(std::string line, std::function<void()> action);
    OnTrace(const OnTrace&) = delete;
    OnTrace& operator=(const OnTrace&) = delete;
    ~OnTrace();

  private:
    class Listener : public std::stringbuf {
      public:
        Listener(std::string line, std::function<void()> action)
            : line_(std::move(line)), action_(std::move(action)) {}

      protected:
        int sync() override;

      private:
        std::string line_;
        std::function<void()> action_;
    };

    Listener listener_;
    std::streambuf* standardError_;
};

/// Makes a folder someone else's for the life of the object, so that the daemon refuses to write into it.
class TakenFolder {
  public:
    explicit TakenFolder(std::string path);
    TakenFolder(const TakenFolder&) = delete;
    TakenFolder& operator=(const TakenFolder&) = delete;
    ~TakenFolder();

  private:
    std::string path_;
};

/// No file of the process can grow beyond the size: a disk that is full in the middle of a write.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(unsigned size);
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit();

  private:
    rlimit limits_{};
    void (*earlier_)(int);
};

/// A key and its certificate in the daemon's own handles.
struct MadePair {
    keywarden::X509_T certificate;
    keywarden::EVP_PKEY_T key;
    std::string id;
    std::string certificatePem;
    std::string keyPem;
};

/// One service of its own for each test, with a clock that stands still and a device without network.
class ServerTest : public ::testing::Test {
  protected:
    ServerTest();
    ~ServerTest() override;

    /// The service's file is these lines beside "server", the two groups and the settings file. The store's
    /// upper folders are made, as the service does.
    void configure(const std::string& lines = "");
    /// The same for another service of the device.
    void configureOther(const std::string& otherId, const std::string& lines) const;

    /// The store, started. Without generation in the settings it has no certificate.
    keywarden::Server& start();
    /// A second life of the same store; log and events begin anew.
    keywarden::Server& restart();
    [[nodiscard]] keywarden::Server& server() { return *server_; }
    [[nodiscard]] const keywarden::ServiceConfiguration& configuration() const { return *configuration_; }

    [[nodiscard]] keywarden::InternalCertificatesAccessor store() const;
    [[nodiscard]] std::string active() const { return store().getActive(); }

    [[nodiscard]] static MadePair makePair(const testsupport::CertificateOptions& options,
                                           const testsupport::IssuedCertificate* issuer = nullptr);
    [[nodiscard]] static MadePair makePair(const std::string& commonName);
    /// Installs a pair that another program made.
    MadePair install(const std::string& commonName);
    MadePair install(const testsupport::CertificateOptions& options,
                     const testsupport::IssuedCertificate* issuer = nullptr);
    [[nodiscard]] static keywarden::NetworkInfo noNetwork();

    /// What "network.sh" prints from now on, taken over at once.
    static void setNetwork(const std::string& printed);
    static void clearLog() { testsupport::CapturedLog::clear(); }
    [[nodiscard]] static const testsupport::Sandbox& sandbox() {
        return testsupport::TestDevice::get().sandbox();
    }
    /// A file of the test's own.
    [[nodiscard]] std::string scratch(const std::string& name, const std::string& content) const;

    std::string id;       ///< the service
    std::string cnfFile;  ///< its request settings: P-256, CN "unit.example"
    std::shared_ptr<RecordingCallbacks> callbacks = std::make_shared<RecordingCallbacks>();

  private:
    std::unique_ptr<keywarden::ServiceConfiguration> configuration_;
    std::unique_ptr<keywarden::Server> server_;
};

[[nodiscard]] std::string readFile(const std::string& path);
/// Stands for a text that must not be printed, such as a key.
[[nodiscard]] std::string fingerprint(const std::string& secret);
[[nodiscard]] bool exists(const std::string& path);
/// "0640 adm", links not followed.
[[nodiscard]] std::string rightsOf(const std::string& path);
/// The names in a folder, sorted.
[[nodiscard]] std::vector<std::string> namesIn(const std::string& folder);
/// The six files of a certificate that stand, in the order of their removal: "cert", "key", ...
[[nodiscard]] std::string filesOf(const keywarden::InternalCertificatesAccessor& store,
                                  const std::string& id);

/// The text of the exception of the wanted type, or what went wrong instead.
template <typename Exception, typename Call>
std::string failureOf(Call call) {
    try {
        call();
    } catch (const Exception& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string("another exception: ") + error.what();
    } catch (...) {
        return "no standard exception";
    }
    return "no exception";
}

/// Code and text of the daemon's exception.
template <typename Call>
std::pair<int, std::string> codedFailureOf(Call call) {
    try {
        call();
    } catch (const keywarden::KeywardenDaemonException& error) {
        return {error.code(), error.what()};
    } catch (const std::exception& error) {
        return {-1, std::string("another exception: ") + error.what()};
    } catch (...) {
        return {-1, "no standard exception"};
    }
    return {-1, "no exception"};
}

}  // namespace servertest
