#include "FaultRun.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "testsupport/CapturedLog.h"
#include "testsupport/Child.h"
#include "testsupport/TestDevice.h"

namespace faults {

namespace {

using testsupport::inChild;
using testsupport::TestDevice;

// Instrumented code takes several times as long: it meets a part of the faults, another one in each
// scenario's series of kinds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned kStep = 7;
#else
constexpr unsigned kStep = 1;
#endif

constexpr unsigned kMostReported = 10;

struct Total {
    unsigned injected = 0;
    unsigned bad = 0;
};

std::string textOf(const char* what, const Total& total) {
    return std::string(what) + ": faults injected: " + std::to_string(total.injected) +
           ", survived: " + std::to_string(total.injected - total.bad) +
           ", bad: " + std::to_string(total.bad) +
           (kStep == 1 ? ""
                       : " (every " + std::to_string(kStep) + "th point, for want of time in this build)") +
           "\n";
}

Total& all() {
    static Total total;
    return total;
}

class PrintTotal : public testing::Environment {
  public:
    void TearDown() override { std::cout << textOf("All scenarios", all()); }
};

[[maybe_unused]] testing::Environment* const printTotal =
    testing::AddGlobalTestEnvironment(new PrintTotal);  // owned by the framework

/// Everything that the daemon keeps, durable and fleeting.
struct Device {
    std::string durable = TestDevice::get().keywardDirectory();
    std::string fleeting = TestDevice::get().pipesDirectory();
    Tree durableTree;
    Tree fleetingTree;

    void keep() {
        durableTree = readTree(durable);
        fleetingTree = readTree(fleeting);
    }
    void restore() const {
        writeTree(durable, durableTree);
        writeTree(fleeting, fleetingTree);
    }
};

enum class Outcome { Confirmed, Failed, Ended, Broken };

struct Ran {
    Outcome outcome;
    unsigned calls;
};

/// The operation with one fault, in a child; the number of calls comes back through its exit status.
Ran runOnce(const Scenario& scenario, const Device& device, const Plan& plan, unsigned* calls = nullptr) {
    device.restore();
    std::cout.flush();
    const std::string counted = TestDevice::get().sandbox().path("calls");
    const pid_t child = ::fork();
    if (child == 0) {
        int code = 0;
        try {
            const std::function<void()> operation = scenario.begin();
            arm(device.durable, device.fleeting, plan);
            try {
                operation();
            } catch (const std::exception&) {
                code = 1;
            }
            const unsigned number = disarm();
            if (plan.kind == Plan::Kind::Count)
                static_cast<void>(TestDevice::get().sandbox().write("calls", std::to_string(number)));
        } catch (const std::exception& error) {
            std::cerr << scenario.name << ": " << error.what() << "\n";
            code = 2;
        }
        ::_exit(code);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (calls != nullptr)
        *calls = static_cast<unsigned>(std::stoul(testsupport::Sandbox::read(counted)));
    if (!WIFEXITED(status))
        return {Outcome::Broken, 0};
    switch (WEXITSTATUS(status)) {
        case 0:
            return {Outcome::Confirmed, 0};
        case 1:
            return {Outcome::Failed, 0};
        case kEnded:
            return {Outcome::Ended, 0};
        default:
            return {Outcome::Broken, 0};
    }
}

std::string describe(const Plan& plan) {
    const std::string where = " call " + std::to_string(plan.call);
    switch (plan.kind) {
        case Plan::Kind::KillBefore:
            return "end before" + where;
        case Plan::Kind::KillAfter:
            return "end after" + where;
        case Plan::Kind::Fail:
            return "errno " + std::to_string(plan.error) + " of" + where;
        case Plan::Kind::PowerCut:
            return "power cut after" + where + ", lucky folders " + std::to_string(plan.luckyFolders);
        default:
            return "no fault";
    }
}

/// What is wrong after the restart; empty when nothing is.
std::string judge(const Scenario& scenario, bool isConfirmed) {
    std::string found;
    try {
        found = inChild(scenario.restart);
    } catch (const std::exception& error) {
        return std::string("the restart failed: ") + error.what();
    }
    std::istringstream lines(found);
    std::string state;
    std::getline(lines, state);
    const std::string faults = found.substr(std::min(found.size(), state.size() + 1));
    const auto& allowed = isConfirmed ? scenario.confirmed : scenario.unconfirmed;
    if (allowed.count(state) == 0)
        return "the state is '" + state + "'" + (isConfirmed ? " after a confirmation\n" : "\n") + faults;
    return faults;
}

std::vector<Plan> plansFor(unsigned calls) {
    std::vector<Plan> plans;
    for (unsigned call = 1; call <= calls; ++call) {
        plans.push_back({Plan::Kind::KillBefore, call, 0, 0});
        plans.push_back({Plan::Kind::KillAfter, call, 0, 0});
        for (const int error : {ENOSPC, EIO, EACCES})
            plans.push_back({Plan::Kind::Fail, call, error, 0});
    }
    // Nothing that was not synced; everything but contents; and folders that were luckier than others.
    for (unsigned call = 1; call <= calls + 1; ++call)
        for (const unsigned lucky : {0U, 0xFFU, 0x55U, 0xAAU})
            plans.push_back({Plan::Kind::PowerCut, call, 0, lucky});
    return plans;
}

}  // namespace

void runAllFaults(const Scenario& scenario) {
    Device device;
    writeTree(device.durable, {});
    writeTree(device.fleeting, {});
    inChild([&scenario] {
        scenario.prepare();
        return std::string();
    });
    device.keep();
    unsigned calls = 0;
    ASSERT_EQ(Outcome::Confirmed, runOnce(scenario, device, Plan(), &calls).outcome) << scenario.name;
    ASSERT_EQ("", judge(scenario, true)) << scenario.name << " without a fault";
    ASSERT_GT(calls, 0U);
    Total total;
    const std::vector<Plan> plans = plansFor(calls);
    for (std::size_t at = 0; at < plans.size(); at += kStep) {
        const Outcome outcome = runOnce(scenario, device, plans[at]).outcome;
        const bool isConfirmed = outcome == Outcome::Confirmed ||
                                 (plans[at].kind == Plan::Kind::PowerCut && plans[at].call > calls);
        const std::string wrong =
            outcome == Outcome::Broken ? "the process crashed" : judge(scenario, isConfirmed);
        ++total.injected;
        if (wrong.empty())
            continue;
        ++total.bad;
        if (total.bad <= kMostReported)
            ADD_FAILURE() << scenario.name << ", " << describe(plans[at]) << ": " << wrong;
    }
    all().injected += total.injected;
    all().bad += total.bad;
    std::cout << textOf((scenario.name + " (" + std::to_string(calls) + " calls)").c_str(), total);
    EXPECT_EQ(0U, total.bad);
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::string leftoversIn(const std::string& folder) {
    std::string faults;
    for (const std::string& name : namesIn(folder))
        if (name == ".journal" || (name[0] == '.' && name != ".cacheddata"))
            faults += "left behind: " + folder + "/" + name + "\n";
    return faults;
}

}  // namespace faults
