#include "testsupport/TestDevice.h"

#include <grp.h>
#include <unistd.h>

#include <filesystem>

#include "support/ConfigurationPath.h"

namespace keywarden {

const char* daemonConfigurationPath() {
    static const std::string path = testsupport::TestDevice::get().sandbox().path("config.daemon");
    return path.c_str();
}

}  // namespace keywarden

namespace testsupport {

TestDevice& TestDevice::get() {
    static TestDevice device;
    return device;
}

TestDevice::TestDevice() {
    for (const auto& folder : {keywardDirectory(), pipesDirectory(), servicesDirectory(), scriptsDirectory()})
        std::filesystem::create_directories(folder);
    setNetwork("");
    sandbox_.write("scripts/network.sh", "#!/bin/sh\nexec cat '" + sandbox_.path("network.txt") + "'\n",
                   0755);
    sandbox_.write("config.daemon", "keywardDirectory " + keywardDirectory() + "\n" +  //
                                        "notificationGroup " + group() + "\n" +        //
                                        "serviceConfigDirectory " + servicesDirectory() + "\n" +
                                        "namePipesDirectory " + pipesDirectory() + "\n" +  //
                                        "daemonUser root\n" +                              //
                                        "scriptsDirectory " + scriptsDirectory() + "\n" + "lockFile " +
                                        sandbox_.path("keywardd.lock") + "\n" + "pidFile " +
                                        sandbox_.path("keywardd.pid") + "\n");
}

void TestDevice::setNetwork(const std::string& printed) const {
    sandbox_.write("network.txt", printed);
}

std::string TestDevice::writeService(const std::string& id, const std::string& content) const {
    return sandbox_.write("services/" + id + ".conf", content);
}

std::string TestDevice::group() {
    const struct group* const entry = ::getgrgid(::getegid());
    return entry != nullptr ? entry->gr_name : "root";
}

}  // namespace testsupport
