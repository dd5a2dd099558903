#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "service/Service.h"
#include "support/UniqueFd.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/TestDevice.h"

namespace servicetest {

/// 2024-06-15 13:45:00 UTC.
constexpr std::int64_t kNow = 1718459100;

using Lines = std::vector<testsupport::LogLine>;

/// Something that cannot be moved, removed or replaced, in a path's place.
class Blocked {
  public:
    explicit Blocked(std::string path);
    Blocked(const Blocked&) = delete;
    Blocked& operator=(const Blocked&) = delete;
    ~Blocked();

  private:
    std::string path_;
};

/// A user of a service's pipes.
class Requester {
  public:
    explicit Requester(const std::string& serviceId);

    /// The whole conversation; "no answer" when none came in the time.
    [[nodiscard]] std::string ask(const std::string& request,
                                  std::chrono::milliseconds time = std::chrono::seconds(20));

    // Its steps.
    void makeOutput() const;
    /// From now on the answer can be written.
    void openOutput();
    /// False when nobody reads the input.
    bool send(const std::string& request) const;
    [[nodiscard]] std::string receive(std::chrono::milliseconds time = std::chrono::seconds(20));
    /// Gives up: closes and removes the output.
    void leave();

    [[nodiscard]] const std::string& input() const { return input_; }
    [[nodiscard]] const std::string& output() const { return output_; }
    [[nodiscard]] const std::string& lock() const { return lock_; }
    [[nodiscard]] const std::string& folder() const { return folder_; }

  private:
    std::string folder_;
    std::string input_;
    std::string output_;
    std::string lock_;
    keywarden::UniqueFd end_;
};

/// Waits for a condition; false after the time.
bool becomes(const std::function<bool()>& condition,
             std::chrono::milliseconds time = std::chrono::seconds(20));

[[nodiscard]] std::string request(const std::string& target, const std::string& command,
                                  const std::vector<std::string>& arguments = {});

/// The exception's text, with its type in front unless it is the daemon's own.
[[nodiscard]] std::string failureOf(const std::function<void()>& action);

/// "0640 kwkeys", links not followed; "missing".
[[nodiscard]] std::string rightsOf(const std::string& path);

/// The lines that begin with one of the starts.
[[nodiscard]] Lines linesStarting(const std::vector<std::string>& starts);

/// One service of its own for every test, whose owner is a script that writes down its events.
class ServiceTest : public testing::Test {
  protected:
    ServiceTest();
    ~ServiceTest() override;
    void SetUp() override;

    /// The service's file: groups, owner, settings file and these lines. A key that the lines set themselves
    /// is left to them.
    void configure(const std::string& lines = "") const;
    void configureOther(const std::string& otherId, const std::string& lines) const;

    /// The owner is a library, which from now on throws from this event: "daemon", "coded" (42), "runtime",
    /// "standard" or "odd".
    void configureThrowingOwner(const std::string& lines = "") const;
    void ownerThrows(const std::string& event, const std::string& kind, const std::string& text = "") const;
    static void ownerThrowsNothing();

    /// Loads the service.
    keywarden::Service& start();
    /// Loads it, if that is not done, and starts timer and handler as the daemon does.
    keywarden::Service& run();
    void destroy() { service_.reset(); }
    [[nodiscard]] keywarden::Service& service() { return *service_; }

    [[nodiscard]] std::string ask(const std::string& line) { return Requester(id).ask(line); }

    /// What the owner was told, one event a line without the service's name; empties the record.
    std::vector<std::string> events() const;
    /// The owner's script does not end for this event before release().
    void hold(const std::string& event) const;
    void release(const std::string& event) const;
    [[nodiscard]] bool isHeld(const std::string& event) const;

    static void setNetwork(const std::string& printed);
    [[nodiscard]] static const testsupport::Sandbox& sandbox() {
        return testsupport::TestDevice::get().sandbox();
    }
    [[nodiscard]] std::string pipes() const;
    [[nodiscard]] std::string folder() const;

    std::string id;
    std::string script;
    std::string cnfFile;

  private:
    std::unique_ptr<keywarden::Service> service_;
};

}  // namespace servicetest
