#include "FaultRun.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "OneRun.h"
#include "testsupport/Child.h"

namespace faults {

namespace {

using Outcome = Ran::Outcome;

// Instrumented code takes several times as long: it meets a part of the faults, another one in each
// scenario's series of kinds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr unsigned kStep = 7;
#else
constexpr unsigned kStep = 1;
#endif

constexpr unsigned kMostReported = 10;
// Nothing that was not synced; everything but contents; and folders that were luckier than others.
constexpr unsigned kNoLuck = 0;
constexpr unsigned kLuck = 0xFF;
constexpr unsigned kEvenFolders = 0x55;
constexpr unsigned kOddFolders = 0xAA;

struct Total {
    unsigned injected = 0;
    unsigned bad = 0;
};

std::string textOf(const std::string& what, const Total& total, unsigned step) {
    return what + ": faults injected: " + std::to_string(total.injected) +
           ", survived: " + std::to_string(total.injected - total.bad) +
           ", bad: " + std::to_string(total.bad) +
           (step == 1 ? "" : " (every " + std::to_string(step) + "th, for want of time)") + "\n";
}

Total& all() {
    static Total total;
    return total;
}

class PrintTotal : public testing::Environment {
  public:
    void TearDown() override { std::cout << textOf("All scenarios", all(), kStep); }
};

[[maybe_unused]] testing::Environment* const printTotal =
    testing::AddGlobalTestEnvironment(new PrintTotal);  // owned by the framework

/// The runs of one series: thinned out, counted, and told at its end.
class Series {
  public:
    Series(const Scenario& scenario, std::string what, unsigned step)
        : scenario_(scenario), what_(std::move(what)), step_(step * kStep) {}

    [[nodiscard]] bool isNextWanted() { return met_++ % step_ == 0; }

    void count(const Plan& plan, const std::string& wrong) {
        ++total_.injected;
        if (wrong.empty())
            return;
        ++total_.bad;
        if (total_.bad <= kMostReported)
            ADD_FAILURE() << scenario_.name << what_ << ", " << describe(plan) << ": " << wrong;
    }

    void end(const std::string& more) {
        all().injected += total_.injected;
        all().bad += total_.bad;
        std::cout << textOf(scenario_.name + what_ + more, total_, step_);
        EXPECT_EQ(0U, total_.bad);
    }

  private:
    const Scenario& scenario_;
    std::string what_;
    unsigned step_;
    unsigned met_ = 0;
    Total total_;
};

Device prepared(const Scenario& scenario) {
    Device device;
    device.clear();
    testsupport::inChild([&scenario] {
        scenario.prepare();
        return std::string();
    });
    device.keep();
    return device;
}

/// One run of the operation from the device's state on, and its judgement.
std::string run(const Scenario& scenario, const Device& device, const Plan& plan, unsigned calls) {
    device.restore();
    const Ran ran = runOnce(scenario.name, device, scenario.begin, plan);
    if (ran.outcome == Outcome::Broken)
        return "the process crashed";
    const std::string afterwards =
        judge(scenario, plan, ran.outcome == Outcome::Confirmed || endsAfter(plan, calls));
    return ran.examined.empty() ? afterwards : "still running: " + ran.examined + afterwards;
}

std::vector<Fault> singleFaults(unsigned calls) {
    std::vector<Fault> faults;
    for (unsigned call = 1; call <= calls; ++call) {
        faults.push_back({Fault::Kind::KillBefore, call, 0, 0});
        faults.push_back({Fault::Kind::KillAfter, call, 0, 0});
        for (const int error : {ENOSPC, EIO, EACCES})
            faults.push_back({Fault::Kind::Fail, call, error, 0});
    }
    for (unsigned call = 1; call <= calls + 1; ++call)
        for (const unsigned lucky : {kNoLuck, kLuck, kEvenFolders, kOddFolders})
            faults.push_back({Fault::Kind::PowerCut, call, 0, lucky});
    return faults;
}

/// Fewer kinds: there is one set for each first fault.
std::vector<Fault> secondFaults(unsigned from, unsigned calls) {
    std::vector<Fault> faults;
    for (unsigned call = from; call <= calls; ++call) {
        faults.push_back({Fault::Kind::KillBefore, call, 0, 0});
        faults.push_back({Fault::Kind::KillAfter, call, 0, 0});
        faults.push_back({Fault::Kind::Fail, call, EIO, 0});
        faults.push_back({Fault::Kind::PowerCut, call, 0, kNoLuck});
        faults.push_back({Fault::Kind::PowerCut, call, 0, call % 2 == 0 ? kEvenFolders : kOddFolders});
    }
    return faults;
}

bool startsWith(const std::string& text, const std::string& start) {
    return text.rfind(start, 0) == 0;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string callsText(unsigned calls) {
    return " (" + std::to_string(calls) + " calls)";
}

}  // namespace

std::vector<unsigned> moveAfterTheKey(const Calls& calls) {
    for (unsigned call = 1; call < calls.count(); ++call)
        if (startsWith(calls.names[call - 1], "renameat") && endsWith(calls.names[call - 1], ".0.key"))
            return {call + 1};
    return {};
}

std::vector<unsigned> endOfTheJournal(const faults::Calls& calls) {
    std::vector<unsigned> ends;
    bool isJournalled = false;
    for (unsigned call = 1; call <= calls.beforeMark; ++call) {
        const std::string& name = calls.names[call - 1];
        isJournalled = isJournalled || (startsWith(name, "renameat") && endsWith(name, ".journal"));
        const bool isSync = startsWith(name, "fsync");
        const bool isRemoval = startsWith(name, "unlinkat") && endsWith(name, ".journal");
        if (isJournalled && (isSync || isRemoval))
            ends.push_back(call);
    }
    // The sync of the journal itself, the first one, is the earlier change's own fault.
    if (!ends.empty())
        ends.erase(ends.begin());
    return ends;
}

bool isAllAskedFor() {
    const char* const asked = std::getenv("FAULTS_ALL");
    return asked != nullptr && std::string(asked) == "1";
}

void runAllFaults(const Scenario& scenario) {
    const Device device = prepared(scenario);
    device.restore();
    const Ran whole = runOnce(scenario.name, device, scenario.begin, {});
    ASSERT_EQ(Outcome::Confirmed, whole.outcome) << scenario.name;
    ASSERT_EQ("", judge(scenario, {}, true)) << scenario.name << " without a fault";
    const unsigned calls = whole.calls.count();
    ASSERT_GT(calls, 0U);
    Series series(scenario, "", 1);
    for (const Fault& fault : singleFaults(calls))
        if (series.isNextWanted())
            series.count({fault}, run(scenario, device, {fault}, calls));
    series.end(callsText(calls));
}

void runSecondFaults(const Scenario& scenario, const FirstFaults& firsts) {
    const Device device = prepared(scenario);
    device.restore();
    const Ran whole = runOnce(scenario.name, device, scenario.begin, {});
    ASSERT_EQ(Outcome::Confirmed, whole.outcome) << scenario.name;
    const std::vector<unsigned> places = firsts(whole.calls);
    ASSERT_FALSE(places.empty()) << scenario.name;
    Series series(scenario, ", second fault", 1);
    for (const unsigned place : places) {
        const Fault first{Fault::Kind::Fail, place, EIO, 0};
        device.restore();
        const Calls calls = runOnce(scenario.name, device, scenario.begin, {first}).calls;
        series.count({first}, run(scenario, device, {first}, calls.count()));
        for (const Fault& second : secondFaults(std::max(place, calls.beforeMark) + 1, calls.count()))
            if (series.isNextWanted())
                series.count({first, second}, run(scenario, device, {first, second}, calls.count()));
    }
    series.end(callsText(whole.calls.count()));
}

void runFaultsOfRecovery(const Scenario& scenario, unsigned step) {
    const Device device = prepared(scenario);
    device.restore();
    const unsigned calls = runOnce(scenario.name, device, scenario.begin, {}).calls.count();
    ASSERT_GT(calls, 0U);
    Series series(scenario, ", fault of the recovery", isAllAskedFor() ? 1 : step);
    for (unsigned call = 1; call <= calls; ++call) {
        const Fault first{Fault::Kind::KillAfter, call, 0, 0};
        device.restore();
        ASSERT_EQ(Outcome::Ended, runOnce(scenario.name, device, scenario.begin, {first}).outcome);
        Device cut;
        cut.keep();
        const Ran start = runOnce(scenario.name, cut, scenario.start, {});
        ASSERT_EQ(Outcome::Confirmed, start.outcome) << scenario.name << ", " << describe({first});
        for (const Fault& second : secondFaults(1, start.calls.count())) {
            if (!series.isNextWanted())
                continue;
            cut.restore();
            const Ran ran = runOnce(scenario.name, cut, scenario.start, {second});
            series.count({first, second}, ran.outcome == Outcome::Broken
                                              ? "the start crashed"
                                              : ran.examined + judge(scenario, {first, second}, false));
        }
    }
    series.end(callsText(calls));
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
