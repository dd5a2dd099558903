#include <sys/stat.h>

#include "daemon/Daemonize.h"
#include "daemon/Exit.h"
#include "daemon/StartUp.h"
#include "support/Debug.h"

using namespace keywarden;

namespace {

void runDaemon() {
    limitCapabilities();
    initDaemon();
    giveUpPrivileges();
    cleanEnvironment();
    checkNetworkScript();
    createFileArchitecture();
    const std::vector<std::string> names = orderedServiceNames();
    shutdownIfAsked();

    debugTrace("daemonize...");
    daemonize();
    debugTrace("daemonize... done.");

    constructServices(names);
    startServices();
    createNotificationFifo();
    startThreads();
    announce();

    joinThreads();
    shutdown();
}

}  // namespace

int main(int argc, char* argv[]) {
    runToTheEnd([argc, argv] {
        closeInheritedDescriptors();
        openLogAndReadOptions(argc, argv);
        ::umask(0);
        prepareProcess();
        initCheck();
        lockInstance();
        prepareDirectories();
        runGuarded(runDaemon);
    });
}
