// Loading, unloading and the end of a service.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "ServiceFixture.h"
#include "support/Accounts.h"
#include "testsupport/Child.h"
#include "testsupport/TestAccounts.h"
#include "testsupport/Traces.h"

namespace servicetest {

using keywarden::Service;
using keywarden::SeverityError;
using keywarden::SeverityInfo;
using keywarden::SeverityNotice;
using keywarden::SeverityWarning;
using testsupport::CapturedLog;
using testsupport::inChild;
using testsupport::LogLine;
using testsupport::Sandbox;
using testsupport::TestAccounts;
using testsupport::TestDevice;
using testsupport::tracesOf;
using Words = std::vector<std::string>;

class ServiceLoad : public ServiceTest {
  protected:
    std::string failureToStart() {
        return failureOf([this] { start(); });
    }
    [[nodiscard]] std::string loadingFailed(const std::string& reason) const {
        return "Std exception during loading service object for service-" + id + ": " + reason;
    }
    [[nodiscard]] std::string unreadable(const std::string& path) const {
        return loadingFailed("The cnf hook '" + path + "' of the service '" + id +
                             "' doesn't have read right for 'root'");
    }
};

TEST_F(ServiceLoad, TellsEveryStepInItsOrder) {
    configure("server yes\nca yes\ntrustedClients yes");
    start();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{
                  {SeverityNotice, "The service " + id + " is starting..."},
                  {SeverityNotice, "Server for service " + id + " starting..."},
                  {SeverityInfo, "Server certificate not found for service: " + id},
                  {SeverityNotice,
                   "Certificate for service '" + id + "' can not be created as signed type is disabled."},
                  {SeverityNotice, "Server for service " + id + " started."},
                  {SeverityNotice, "trusted clients for service " + id + " starting..."},
                  {SeverityNotice, "trusted clients for service " + id + " started."},
                  {SeverityNotice, "CA for service " + id + " starting..."},
                  {SeverityNotice, "CA for service " + id + " started."},
                  {SeverityNotice, "Reload: The service " + id + " is started."},
              }));
    EXPECT_TRUE(service().isLoaded());
    EXPECT_EQ(events(), Words{"start"});
}

TEST_F(ServiceLoad, ServiceWithoutStoresOnlyStarts) {
    configure();
    start();
    EXPECT_EQ(CapturedLog::lines(), (Lines{
                                        {SeverityNotice, "The service " + id + " is starting..."},
                                        {SeverityNotice, "Reload: The service " + id + " is started."},
                                    }));
}

TEST_F(ServiceLoad, MakesItsFoldersWithTheirRights) {
    configure();
    start();
    EXPECT_EQ(rightsOf(pipes()), "0770 kwmanage");
    EXPECT_EQ(rightsOf(folder()), "0711 kwmanage");
}

TEST_F(ServiceLoad, BringsExistingFoldersToTheirRights) {
    std::filesystem::create_directory(pipes());
    std::filesystem::create_directory(folder());
    configure();
    start();
    EXPECT_EQ(rightsOf(pipes()), "0770 kwmanage");
    EXPECT_EQ(rightsOf(folder()), "0711 kwmanage");
}

TEST_F(ServiceLoad, OfALoadedServiceDoesNothing) {
    configure();
    start();
    CapturedLog::clear();
    service().load();
    EXPECT_EQ(CapturedLog::lines(), Lines{});
    EXPECT_EQ(events(), Words{"start"});
}

TEST_F(ServiceLoad, WithoutAFileFails) {
    EXPECT_EQ(failureToStart(), "runtime error: No configuration file for the service " + id);
}

TEST_F(ServiceLoad, WithoutCallbacksFails) {
    TestDevice::get().writeService(
        id, std::string("managmentGroup ") + TestAccounts::kManagementGroup + "\ncnfFile " + cnfFile);
    EXPECT_EQ(failureToStart(), loadingFailed("No callbacks to load"));
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityNotice, "The service " + id + " is starting..."}}));
    EXPECT_FALSE(Sandbox::exists(pipes()));
}

TEST_F(ServiceLoad, ScriptWinsOverTheLibrary) {
    configure("callbackLibrary /nonexistent.so\ncallbackScript " + script);
    start();
    EXPECT_EQ(events(), Words{"start"});
}

TEST_F(ServiceLoad, LibraryIsTakenWithoutAScript) {
    configureThrowingOwner();
    ownerThrows("started", "runtime", "the owner is asleep");
    EXPECT_EQ(failureToStart(), loadingFailed("the owner is asleep"));
    ownerThrows("started", "coded", "no key");
    EXPECT_EQ(failureToStart(), loadingFailed("no key"));
    ownerThrows("started", "standard", "");
    EXPECT_EQ(failureToStart(), loadingFailed("Unknown error"));
    ownerThrows("started", "odd");
    EXPECT_EQ(failureToStart(), "Unknown exception during loading service object for service-" + id);
    ownerThrowsNothing();
    EXPECT_EQ(failureToStart(), "no exception");
}

TEST_F(ServiceLoad, FailureAfterThePipesLeavesNone) {
    configure("callbackScript /nonexistent");
    EXPECT_EQ(failureToStart(),
              loadingFailed("The callback /nonexistent for the service " + id + " doesn't exist"));
    configure("managmentGroup no-such-group");
    EXPECT_NE(failureToStart(), "no exception");
    EXPECT_FALSE(Sandbox::exists(pipes()));
}

TEST_F(ServiceLoad, UnknownManagementGroupFails) {
    configure("managmentGroup no-such-group");
    EXPECT_EQ(failureToStart(),
              loadingFailed("The group 'no-such-group' of the service '" + id + "' doesn't exist"));
}

TEST_F(ServiceLoad, ManagementGroupWithoutTheDaemonUserFails) {
    configure("managmentGroup kwforeign");
    EXPECT_EQ(
        failureToStart(),
        loadingFailed("The user 'root' is not member of the group 'kwforeign' of the service '" + id + "'."));
}

TEST_F(ServiceLoad, PrimaryGroupAloneIsNoMembership) {
    configure("managmentGroup root");
    EXPECT_EQ(
        failureToStart(),
        loadingFailed("The user 'root' is not member of the group 'root' of the service '" + id + "'."));
}

TEST_F(ServiceLoad, UnknownKeyGroupFails) {
    configure("server yes\nkeyGroup no-such-group");
    EXPECT_EQ(failureToStart(),
              loadingFailed("The group 'no-such-group' of the service '" + id + "' doesn't exist"));
}

TEST_F(ServiceLoad, KeyGroupWithoutTheDaemonUserFailsWithoutAFullStop) {
    configure("server yes\nkeyGroup kwforeign");
    EXPECT_EQ(
        failureToStart(),
        loadingFailed("The user 'root' is not member of the group 'kwforeign' of the service '" + id + "'"));
}

TEST_F(ServiceLoad, SettingsFileThatCannotBeReadIsCalledAHook) {
    configure("server yes\ncnfFile /nonexistent.cnf");
    EXPECT_EQ(failureToStart(), unreadable("/nonexistent.cnf"));
    configure("server yes\ncnfHookFile /nonexistent.hook");
    EXPECT_EQ(failureToStart(), unreadable("/nonexistent.hook"));
    configure("server yes\ncnfHookFile /nonexistent.hook\ncnfFile /nonexistent.cnf");
    EXPECT_EQ(failureToStart(), unreadable("/nonexistent.hook"));
}

TEST_F(ServiceLoad, WithoutAServerKeyGroupAndSettingsAreNotLookedAt) {
    configure("keyGroup no-such-group\ncnfHookFile /nonexistent\ncnfFile /nonexistent");
    start();
    EXPECT_TRUE(service().isLoaded());
}

// A daemon user that may not do what root may, in a process of its own.
class ServiceOfAPoorUser : public ServiceTest {
  protected:
    /// What the process logged, and how the action ended.
    std::string as(bool owner, const std::function<void()>& action) {
        const auto nobody = keywarden::userIdOf("nobody");
        const uid_t user = owner ? *nobody : 0;
        for (const std::string& path : {pipes(), folder()}) {
            std::filesystem::create_directories(path);
            ::chmod(path.c_str(), path == pipes() ? 0770 : 0711);
            if (::chown(path.c_str(), user, owner ? TestAccounts::kManagementGid : 0) != 0)
                return "cannot prepare " + path;
        }
        // As on a device, where the daemon user owns the folder of all pipes.
        const std::string all = TestDevice::get().pipesDirectory();
        const mode_t before = Sandbox::mode(all);
        ::chmod(all.c_str(), 0777);
        std::string report = inChild([&] {
            // For good: access(2) and the limit of threads look at the real user.
            if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(*nobody, *nobody, *nobody) != 0)
                throw std::runtime_error("cannot become nobody");
            CapturedLog::clear();
            const std::string end = failureOf(action);
            return CapturedLog::dump() + end;
        });
        ::chmod(all.c_str(), before);
        return report;
    }
    [[nodiscard]] std::string starting() const { return "5 The service " + id + " is starting...\n"; }
    /// The folder that another user had put in the place of the pipes.
    [[nodiscard]] std::string movedAside() const {
        return "4 What stood in the place of the folder '" + pipes() +
               "' has been moved aside: Impossible to open the folder '" + pipes() + "': Permission denied\n";
    }
    [[nodiscard]] std::string started() const { return "5 Reload: The service " + id + " is started.\n"; }
};

TEST_F(ServiceOfAPoorUser, GroupThatMayNotBeGivenIsLoggedAndTheLoadGoesOn) {
    configure();
    EXPECT_EQ(as(false, [this] { start(); }),
              starting() + movedAside() + "3 Runtime error caught while changing group for file '" + pipes() +
                  "': Impossible to change the group for " + pipes() + "\n3 Change the group of file: " +
                  folder() + " to:kwmanage' failed.\n" + started() + "no exception");
}

TEST_F(ServiceOfAPoorUser, MembershipIsCheckedAlthoughTheGroupCouldNotBeGiven) {
    configure("managmentGroup kwforeign");
    EXPECT_EQ(as(false, [this] { start(); }),
              starting() + movedAside() + "3 Runtime error caught while changing group for file '" + pipes() +
                  "': Impossible to change the group for " + pipes() +
                  "\nStd exception during loading service object for service-" + id +
                  ": The user 'root' is not member of the group 'kwforeign' of the service '" + id + "'.");
}

TEST_F(ServiceOfAPoorUser, SettingsFileOfOthersFails) {
    const std::string secret = sandbox().write("secret.cnf", "CN x\n", 0600);
    configure("server yes\ncnfFile " + secret);
    EXPECT_EQ(as(true, [this] { start(); }), starting() +
                                                 "Std exception during loading service object for service-" +
                                                 id + ": The cnf hook '" + secret + "' of the service '" +
                                                 id + "' doesn't have read right for 'root'");
}

TEST_F(ServiceOfAPoorUser, PipesFolderOfOthersIsMovedAsideAndItsOwnersFilesStay) {
    configure();
    std::filesystem::create_directories(pipes());
    sandbox().write("pipes/" + id + "/theirs", "keep me", 0600);
    as(false, [this] { start(); });
    bool isKept = false;
    for (const auto& entry : std::filesystem::directory_iterator(TestDevice::get().pipesDirectory()))
        isKept = isKept || Sandbox::exists(entry.path().string() + "/theirs");
    EXPECT_TRUE(isKept);
    EXPECT_FALSE(Sandbox::exists(pipes() + "/theirs"));
}

TEST_F(ServiceOfAPoorUser, PipesWithoutTheirGroupAreLoggedAndWork) {
    configure();
    const std::string input = Requester(id).input();
    const std::string lock = Requester(id).lock();
    EXPECT_EQ(
        as(true,
           [&] {
               start();
               CapturedLog::clear();
               service().startHandler();
               if (ask(request("config", "status")) != "0 running")
                   throw std::runtime_error("no status");
               service().stopHandler();
           }),
        "3 Change the group of file: " + input +
            " to:kwmanage' failed.\n3 Runtime exception caught during changing group of lock file: " + lock +
            " for service '" + id + "' Impossible to change the group for " + lock +
            "\n6 Entering the command line analyzer for service " + id + "\n4 '" + Requester(id).output() +
            "' file not found.\nLooks like the requester is no more present to receive the response "
            "back!\nno exception");
}

// Sanitizers have threads of their own and do not live under such a limit.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
TEST_F(ServiceOfAPoorUser, ThreadThatCannotBeStartedFails) {
    configure();
    const auto withoutThreads = [this](const std::function<void()>& action) {
        return as(true, [this, &action] {
            start();
            const rlimit none{0, 0};
            ::setrlimit(RLIMIT_NPROC, &none);
            CapturedLog::clear();
            action();
        });
    };
    EXPECT_EQ(withoutThreads([this] { service().startTimer(); }),
              "6 The service " + id +
                  " is starting his timer...\nImpossible to start the timer for the service " + id);
    const std::string handler = withoutThreads([this] { service().startHandler(); });
    EXPECT_NE(handler.find("Impossible to start the handler for service " + id), std::string::npos)
        << handler;
    EXPECT_EQ(withoutThreads([this] { service().reloadFunc(); }),
              "Impossible to start the reload request thread for the service " + id);
}
#endif

class ServiceUnload : public ServiceTest {};

TEST_F(ServiceUnload, TellsEveryStepInItsOrder) {
    configure("server yes\nca yes");
    run();
    CapturedLog::clear();
    events();
    service().unload();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{
                  {SeverityNotice, "The service " + id + " is stopping..."},
                  {SeverityInfo, "The service " + id + " is stopping its timer..."},
                  {SeverityInfo, "The service " + id + " stopped its timer."},
                  {SeverityWarning, "'" + Requester(id).output() +
                                        "' file not found.\nLooks like the requester is no more present to "
                                        "receive the response back!"},
                  {SeverityNotice, "The service " + id + " is stopped."},
              }));
    EXPECT_FALSE(service().isLoaded());
    EXPECT_FALSE(Sandbox::exists(pipes()));
    EXPECT_EQ(events(), Words{"stop"});
}

TEST_F(ServiceUnload, OwnerIsToldWhenTheHandlerIsStopped) {
    configure();
    run();
    hold("stop");
    std::thread unloading([this] { service().unload(); });
    EXPECT_TRUE(isHeld("stop"));
    EXPECT_FALSE(Sandbox::exists(Requester(id).input()));
    EXPECT_TRUE(service().isLoaded()) << "not before the owner knows";
    release("stop");
    unloading.join();
    EXPECT_FALSE(service().isLoaded());
}

TEST_F(ServiceUnload, TimerThatANetworkChangeStartsMeanwhileIsStoppedToo) {
    setNetwork("fqdn.0 old.example\n");
    configure("server yes\nselfSignedGeneration yes\nincludeFQDN yes");
    run();
    setNetwork("fqdn.0 new.example\n");
    Requester(id).makeOutput();
    CapturedLog::clear();
    // A requester that does not read keeps it for a second, after the timer was stopped.
    std::thread unloading([this] { service().unload(); });
    EXPECT_TRUE(becomes(
        [this] { return CapturedLog::contains(SeverityInfo, "The service " + id + " stopped its timer."); }));
    service().networkChanged();
    EXPECT_TRUE(CapturedLog::contains(SeverityInfo, "The service " + id + " started his timer."));
    unloading.join();
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice, "The service " + id + " is stopped."));
    CapturedLog::clear();
    service().stopTimer();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityInfo, "The service " + id + " is stopping its timer..."}}));
}

TEST_F(ServiceUnload, UnloadedServiceIsLoadedAgain) {
    configure("server yes");
    run();
    service().unload();
    service().load();
    run();
    EXPECT_EQ(ask(request("config", "status")), "0 running");
    EXPECT_EQ(events(), (Words{"start", "stop", "start"}));
}

TEST_F(ServiceUnload, FileThatCannotBeRemovedIsLogged) {
    configure();
    run();
    const std::string busy = pipes() + "/busy";
    std::filesystem::create_directory(busy);
    ASSERT_EQ(::mount("tmpfs", busy.c_str(), "tmpfs", 0, nullptr), 0) << "we have mounts of our own";
    testsupport::standardErrorOf([this] { service().unload(); });
    EXPECT_TRUE(
        CapturedLog::contains(SeverityNotice, "Failed to remove file '" + pipes() + "' for service-" + id))
        << CapturedLog::dump();
    EXPECT_TRUE(CapturedLog::contains(SeverityNotice, "The service " + id + " is stopped."));
    ASSERT_EQ(::umount(busy.c_str()), 0);
}

TEST_F(ServiceUnload, MissingPipesAreLogged) {
    configure();
    run();
    std::filesystem::remove_all(pipes());
    CapturedLog::clear();
    service().unload();
    EXPECT_TRUE(
        CapturedLog::contains(SeverityError, "Error to remove file: '" + Requester(id).input() + "'."));
    EXPECT_TRUE(
        CapturedLog::contains(SeverityError, "Error to remove file: '" + Requester(id).lock() + "'."));
}

class ServiceEnd : public ServiceTest {};

TEST_F(ServiceEnd, UnloadsALoadedService) {
    configure("server yes");
    run();
    CapturedLog::clear();
    events();
    destroy();
    EXPECT_EQ(linesStarting({"The service"}),
              (Lines{
                  {SeverityNotice, "The service " + id + " is stopping..."},
                  {SeverityInfo, "The service " + id + " is stopping its timer..."},
                  {SeverityInfo, "The service " + id + " stopped its timer."},
                  {SeverityNotice, "The service " + id + " is stopped."},
              }));
    EXPECT_FALSE(Sandbox::exists(pipes()));
    EXPECT_EQ(events(), Words{"stop"});
}

TEST_F(ServiceEnd, OfAnUnloadedServiceTellsNobody) {
    configure("server yes");
    run();
    service().unload();
    events();
    CapturedLog::clear();
    destroy();
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityInfo, "The service " + id + " is stopping its timer..."}}));
    EXPECT_EQ(events(), Words{});
}

TEST_F(ServiceEnd, OwnerThatThrowsIsLoggedAndLeavesNothing) {
    configureThrowingOwner("server yes");
    run();
    ownerThrows("stopped", "runtime", "not now");
    destroy();
    EXPECT_TRUE(
        CapturedLog::contains(SeverityError, "Exception while stopping the service " + id + ": not now"))
        << CapturedLog::dump();
    EXPECT_FALSE(Sandbox::exists(pipes()));
}

TEST_F(ServiceEnd, WaitingRequesterIsReleased) {
    configure();
    run();
    Requester waiting(id);
    waiting.makeOutput();
    waiting.openOutput();
    destroy();
    EXPECT_EQ(waiting.receive(), "7 The daemon just terminate");
    EXPECT_FALSE(Sandbox::exists(pipes()));
}

class ServiceAllStarted : public ServiceTest {};

TEST_F(ServiceAllStarted, OwnerIsTold) {
    configure();
    start();
    const std::string traces = tracesOf([this] { service().notifyAllServicesStarted(); });
    EXPECT_EQ(traces, "Calling callback 'allStarted' for service '" + id + "'.\n");
    EXPECT_EQ(events(), (Words{"start", "allStarted"}));
}

TEST_F(ServiceAllStarted, OwnerMayAskTheServiceBeforeItsScriptEnds) {
    configure();
    run();
    hold("allStarted");
    std::thread notifying([this] { service().notifyAllServicesStarted(); });
    EXPECT_TRUE(isHeld("allStarted"));
    EXPECT_EQ(ask(request("config", "status")), "0 running");
    release("allStarted");
    notifying.join();
}

TEST_F(ServiceAllStarted, OfAnUnloadedServiceTellsNobody) {
    configure();
    start();
    service().unload();
    events();
    service().notifyAllServicesStarted();
    EXPECT_EQ(events(), Words{});
}

}  // namespace servicetest
