// One operation in a process of its own, with its faults, and the judgement on what it leaves.
#include "OneRun.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <sstream>

#include "Told.h"
#include "testsupport/Child.h"
#include "testsupport/TestDevice.h"

namespace faults {

namespace {

using testsupport::Sandbox;
using testsupport::TestDevice;

std::string textOf(const Calls& calls) {
    std::string text = std::to_string(calls.beforeMark) + "\n";
    for (const std::string& name : calls.names)
        text += name + "\n";
    return text;
}

Calls callsFrom(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    Calls calls;
    calls.beforeMark = static_cast<unsigned>(std::stoul(line));
    while (std::getline(lines, line))
        calls.names.push_back(line);
    return calls;
}

// It goes on without a fault, and leaves the disk as it found it: that is judged after a restart as well.
std::string examined(const Running& running, const Plan& plan) {
    if (!running.examine || !hasFailure(plan))
        return {};
    Device left;
    left.keep();
    std::string faults;
    try {
        faults = running.examine(plan.back().call);
    } catch (const std::exception& error) {
        faults = std::string("an exception: ") + error.what() + "\n";
    }
    left.restore();
    return faults;
}

int runInChild(const Device& device, const std::function<Running()>& begin, const Plan& plan) {
    int code = 0;
    const Running running = begin();
    arm(device.durable(), device.fleeting(), plan);
    try {
        running.operation();
    } catch (const std::exception&) {
        code = 1;
    }
    const Sandbox& sandbox = TestDevice::get().sandbox();
    static_cast<void>(sandbox.write("calls", textOf(disarm())));
    static_cast<void>(sandbox.write("examined", examined(running, plan)));
    return code;
}

Ran ranTo(int status) {
    Ran ran;
    if (!WIFEXITED(status))
        return ran;
    const int code = WEXITSTATUS(status);
    if (code == kEnded)
        ran.outcome = Ran::Outcome::Ended;
    if (code != 0 && code != 1)
        return ran;
    ran.outcome = code == 0 ? Ran::Outcome::Confirmed : Ran::Outcome::Failed;
    const Sandbox& sandbox = TestDevice::get().sandbox();
    ran.calls = callsFrom(Sandbox::read(sandbox.path("calls")));
    ran.examined = Sandbox::read(sandbox.path("examined"));
    return ran;
}

std::string describe(const Fault& fault) {
    const std::string where = " call " + std::to_string(fault.call);
    switch (fault.kind) {
        case Fault::Kind::KillBefore:
            return "end before" + where;
        case Fault::Kind::KillAfter:
            return "end after" + where;
        case Fault::Kind::Fail:
            return "errno " + std::to_string(fault.error) + " of" + where;
        default:
            return "power cut after" + where + ", lucky folders " + std::to_string(fault.luckyFolders);
    }
}

}  // namespace

Device::Device()
    : durable_(TestDevice::get().keywardDirectory()), fleeting_(TestDevice::get().pipesDirectory()) {}

void Device::keep() {
    durableTree_ = readTree(durable_);
    fleetingTree_ = readTree(fleeting_);
    told_ = toldText();
}

void Device::restore() const {
    writeTree(durable_, durableTree_);
    writeTree(fleeting_, fleetingTree_);
    setToldText(told_);
}

void Device::clear() {
    *this = Device();
    restore();
}

Ran runOnce(const std::string& name, const Device& device, const std::function<Running()>& begin,
            const Plan& plan) {
    std::cout.flush();
    const pid_t child = ::fork();
    if (child == 0) {
        int code = 2;
        try {
            code = runInChild(device, begin, plan);
        } catch (const std::exception& error) {
            std::cerr << name << ": " << error.what() << "\n";
        }
        ::_exit(code);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return ranTo(status);
}

std::string describe(const Plan& plan) {
    std::string text;
    for (const Fault& fault : plan)
        text += (text.empty() ? "" : ", then ") + describe(fault);
    return text;
}

bool hasFailure(const Plan& plan) {
    return std::any_of(plan.begin(), plan.end(),
                       [](const Fault& fault) { return fault.kind == Fault::Kind::Fail; });
}

bool endsAfter(const Plan& plan, unsigned calls) {
    return !plan.empty() && plan.back().kind == Fault::Kind::PowerCut && plan.back().call > calls;
}

std::string judge(const Scenario& scenario, const Plan& plan, bool isConfirmed) {
    std::string found;
    try {
        found = testsupport::inChild(scenario.restart);
    } catch (const std::exception& error) {
        return std::string("the restart failed: ") + error.what();
    }
    std::istringstream lines(found);
    std::string state;
    std::getline(lines, state);
    std::string faults;
    // What failed stays where it is, as long as somebody is told; what was cut off must be finished or gone.
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(kNamedInWarning, 0) != 0 || !hasFailure(plan))
            faults += line + "\n";
    const auto& allowed = isConfirmed ? scenario.confirmed : scenario.unconfirmed;
    if (allowed.count(state) == 0)
        return "the state is '" + state + "'" + (isConfirmed ? " after a confirmation\n" : "\n") + faults;
    return faults;
}

}  // namespace faults
