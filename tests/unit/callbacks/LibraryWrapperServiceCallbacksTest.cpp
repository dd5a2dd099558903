#include "callbacks/LibraryWrapperServiceCallbacks.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>

#include "callbacks/Delivery.h"
#include "support/StopRequest.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"
#include "testsupport/Traces.h"

namespace {

using keywarden::LibraryWrapperServiceCallbacks;
using keywarden::SeverityError;
using testsupport::CapturedLog;
using testsupport::LogLine;
using testsupport::Sandbox;
using testsupport::tracesOf;

using Lines = std::vector<LogLine>;

std::string failureOf(const std::string& library, const std::string& serviceId = "web") {
    try {
        const LibraryWrapperServiceCallbacks callbacks(serviceId, library);
        return "no exception";
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

std::string cannotLoad(const std::string& library, const std::string& reason) {
    return "Cannot load the callback library " + library + " for the service web: " + reason;
}

bool isLoaded(const std::string& library) {
    void* const handle = ::dlopen(library.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr)
        ::dlclose(handle);
    return handle != nullptr;
}

/// The good library, which records into a file.
class LibraryCallbacks : public testing::Test {
  protected:
    LibraryCallbacks() {
        CapturedLog::clear();
        ::setenv("CALLBACK_RECORD", record().c_str(), 1);
    }
    ~LibraryCallbacks() override { ::unsetenv("CALLBACK_RECORD"); }

    [[nodiscard]] std::string record() const { return sandbox_.path("record"); }

    Sandbox sandbox_;
};

class BadLibrary : public testing::Test {
  protected:
    BadLibrary() { CapturedLog::clear(); }
};

TEST_F(LibraryCallbacks, EachEventReachesTheObjectWithItsArguments) {
    {
        LibraryWrapperServiceCallbacks callbacks("web", PLUGIN_RECORDER);
        callbacks.started();
        callbacks.stopped();
        callbacks.allStarted();
        callbacks.newGeneratedCertificate("3a5f09c1.0");
        callbacks.updateValidityGeneratedCertificate(-10, 19);
        callbacks.newExternalCertificate("ca", "0a1b2c3d.1");
        callbacks.revokedExternalCertificate("client", std::string("0a1b2c3d.2"));
        callbacks.revokedExternalCertificate("ca", std::vector<std::string>{"00000002.0", "00000001.0"});
        callbacks.revokedExternalCertificate("ca", std::vector<std::string>());
        EXPECT_TRUE(isLoaded(PLUGIN_RECORDER));
    }
    EXPECT_EQ(Sandbox::read(record()),
              "web: create\n"
              "web: started\n"
              "web: stopped\n"
              "web: allStarted\n"
              "web: newGenerated 3a5f09c1.0\n"
              "web: updateValidity -10 19\n"
              "web: newExternal ca 0a1b2c3d.1\n"
              "web: revokedOne client 0a1b2c3d.2\n"
              "web: revokedSeveral ca 00000002.0 00000001.0\n"
              "web: revokedSeveral ca\n"
              "web: destroy\n");
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_F(LibraryCallbacks, TableThatWasWrittenByHandIsCalledAtTheSamePlaces) {
    {
        LibraryWrapperServiceCallbacks callbacks("web", PLUGIN_HANDWRITTEN);
        EXPECT_EQ(callbacks.version(), 2);
        callbacks.started();
        callbacks.stopped();
        callbacks.allStarted();
        callbacks.newGeneratedCertificate("3a5f09c1.0");
        callbacks.updateValidityGeneratedCertificate(-10, 19);
        callbacks.newExternalCertificate("ca", "0a1b2c3d.1");
        callbacks.revokedExternalCertificate("client", std::string("0a1b2c3d.2"));
        callbacks.revokedExternalCertificate("ca", std::vector<std::string>{"00000002.0", "00000001.0"});
    }
    EXPECT_EQ(Sandbox::read(record()),
              "started\nstopped\nallStarted\nnewGenerated 3a5f09c1.0\nupdateValidity -10 19\n"
              "newExternal ca 0a1b2c3d.1\nrevokedOne client 0a1b2c3d.2\nrevokedSeveral ca 00000001.0\n"
              "destroy\n");
}

TEST_F(LibraryCallbacks, LibraryThatSaysNoVersionWasBuiltForTheFirst) {
    EXPECT_EQ(LibraryWrapperServiceCallbacks("web", PLUGIN_RECORDER).version(), 1);
}

TEST_F(LibraryCallbacks, LibraryIsUnloadedAfterItsObjectIsReleased) {
    { const LibraryWrapperServiceCallbacks callbacks("web", PLUGIN_RECORDER); }
    EXPECT_FALSE(isLoaded(PLUGIN_RECORDER));
}

TEST_F(LibraryCallbacks, TwoServicesOfOneLibraryHaveAnObjectEach) {
    {
        LibraryWrapperServiceCallbacks one("one", PLUGIN_RECORDER);
        {
            LibraryWrapperServiceCallbacks two("two", PLUGIN_RECORDER);
            two.started();
        }
        one.stopped();
    }
    EXPECT_EQ(Sandbox::read(record()),
              "one: create\ntwo: create\ntwo: started\ntwo: destroy\none: stopped\none: destroy\n");
}

TEST_F(LibraryCallbacks, ExceptionOfTheLibraryReachesTheCaller) {
    LibraryWrapperServiceCallbacks callbacks("throwing", PLUGIN_RECORDER);
    try {
        callbacks.started();
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "the owner is asleep");
    }
}

TEST_F(BadLibrary, MissingFileFails) {
    EXPECT_EQ(failureOf("/nowhere/owner.so"),
              "The callback /nowhere/owner.so for the service web doesn't exist");
}

TEST_F(BadLibrary, FileThatIsNoLibraryFailsWithTheLoadersReasonWhichIsTraced) {
    const Sandbox sandbox;
    const std::string library = sandbox.write("owner.so", "not a library at all, only a line of text");
    std::string failure;
    const std::string traces = tracesOf([&] { failure = failureOf(library); });
    const std::string reason = library + ": file too short";
    EXPECT_EQ(failure, cannotLoad(library, reason));
    EXPECT_EQ(traces, reason + "\n");
}

TEST_F(BadLibrary, FolderFails) {
    const Sandbox sandbox;
    EXPECT_EQ(failureOf(sandbox.path()),
              cannotLoad(sandbox.path(), sandbox.path() + ": cannot read file data: Is a directory"));
}

TEST_F(BadLibrary, FifoFailsWithoutWaitingForAWriter) {
    const Sandbox sandbox;
    const std::string library = sandbox.path("owner.so");
    ASSERT_EQ(::mkfifo(library.c_str(), 0666), 0);
    EXPECT_EQ(failureOf(library), cannotLoad(library, "It is not a regular file"));
}

TEST_F(BadLibrary, MissingCreateIsLoggedAndFails) {
    const std::string reason = PLUGIN_WITHOUT_CREATE ": undefined symbol: create";
    EXPECT_EQ(failureOf(PLUGIN_WITHOUT_CREATE), cannotLoad(PLUGIN_WITHOUT_CREATE, reason));
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityError, "Failed to load symbol from library: " + reason}}));
    EXPECT_FALSE(isLoaded(PLUGIN_WITHOUT_CREATE));
}

TEST_F(BadLibrary, MissingDestroyIsLoggedAndFails) {
    const std::string reason = PLUGIN_WITHOUT_DESTROY ": undefined symbol: destroy";
    EXPECT_EQ(failureOf(PLUGIN_WITHOUT_DESTROY), cannotLoad(PLUGIN_WITHOUT_DESTROY, reason));
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityError, "Failed to load symbol from library: " + reason}}));
    EXPECT_FALSE(isLoaded(PLUGIN_WITHOUT_DESTROY));
}

TEST_F(BadLibrary, CreateThatIsNullIsLoggedWithoutAReason) {
    EXPECT_EQ(failureOf(PLUGIN_NULL_CREATE), cannotLoad(PLUGIN_NULL_CREATE, "create is null"));
    EXPECT_EQ(CapturedLog::lines(), (Lines{{SeverityError, "Failed to load symbol from library."}}));
    EXPECT_FALSE(isLoaded(PLUGIN_NULL_CREATE));
}

TEST_F(BadLibrary, EarlierLoaderErrorIsNotTakenForThisOne) {
    EXPECT_EQ(::dlopen("/nowhere/other.so", RTLD_LAZY), nullptr);
    EXPECT_EQ(failureOf(PLUGIN_NULL_CREATE), cannotLoad(PLUGIN_NULL_CREATE, "create is null"));
}

TEST_F(BadLibrary, CreateThatGivesNoObjectFails) {
    EXPECT_EQ(failureOf(PLUGIN_WITHOUT_OBJECT), cannotLoad(PLUGIN_WITHOUT_OBJECT, "create gave no object"));
    EXPECT_FALSE(isLoaded(PLUGIN_WITHOUT_OBJECT));
}

TEST_F(BadLibrary, CreateThatThrowsFailsWithItsTextAndTheLibraryIsUnloaded) {
    EXPECT_EQ(failureOf(PLUGIN_FAILING_CREATE), cannotLoad(PLUGIN_FAILING_CREATE, "no licence"));
    EXPECT_FALSE(isLoaded(PLUGIN_FAILING_CREATE));
}

TEST_F(BadLibrary, CreateThatThrowsSomethingElseFails) {
    EXPECT_EQ(failureOf(PLUGIN_FAILING_CREATE, "odd"),
              "Cannot load the callback library " PLUGIN_FAILING_CREATE
              " for the service odd: Unknown error");
}

TEST_F(BadLibrary, DestroyThatThrowsIsLogged) {
    { const LibraryWrapperServiceCallbacks callbacks("web", PLUGIN_FAILING_DESTROY); }
    EXPECT_EQ(CapturedLog::lines(),
              (Lines{{SeverityError, "The callback library " PLUGIN_FAILING_DESTROY
                                     " for the service web failed to release its object: still in use"}}));
    EXPECT_FALSE(isLoaded(PLUGIN_FAILING_DESTROY));
}

// A stop cannot be taken back: these run in processes of their own.

std::string gaveUp(const std::string& what) {
    return "The callback library " PLUGIN_HANGING " for the service " + what +
           " was given up at the stop of the daemon: its '" + what + "' did not return within 2 seconds";
}

struct Pause {
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();

    [[nodiscard]] std::string text() const {
        const auto spent = std::chrono::steady_clock::now() - begin;
        return spent < std::chrono::milliseconds(1950)   ? "too soon"
               : spent > std::chrono::milliseconds(3800) ? "too late"
                                                         : "in time";
    }
};

TEST_F(LibraryCallbacks, OneThatHangsAtAStopIsGivenUpAndNotCalledAgain) {
    EXPECT_EQ(testsupport::inChild([this]() -> std::string {
                  const Pause pause;
                  {
                      LibraryWrapperServiceCallbacks callbacks("stopped", PLUGIN_HANGING);
                      keywarden::StopRequest::raise();
                      callbacks.stopped();
                      callbacks.allStarted();
                      if (wasDelivered(callbacks))
                          return "delivered";
                  }
                  return pause.text() + "\n" + CapturedLog::dump() + Sandbox::read(record());
              }),
              "in time\n3 " + gaveUp("stopped") + "\nstopped: create\nstopped: stopped\n");
}

TEST_F(LibraryCallbacks, OneThatHangsWhileItIsReleasedIsGivenUpAtAStop) {
    EXPECT_EQ(testsupport::inChild([this] {
                  const Pause pause;
                  {
                      LibraryWrapperServiceCallbacks callbacks("destroy", PLUGIN_HANGING);
                      keywarden::StopRequest::raise();
                      callbacks.stopped();
                  }
                  return pause.text() + "\n" + CapturedLog::dump() + Sandbox::read(record());
              }),
              "in time\n3 " + gaveUp("destroy") + "\ndestroy: create\ndestroy: stopped\ndestroy: destroy\n");
}

TEST_F(LibraryCallbacks, OneThatHangsAlreadyHasTwoSecondsFromTheStop) {
    EXPECT_EQ(testsupport::inChild([] {
                  LibraryWrapperServiceCallbacks callbacks("validity", PLUGIN_HANGING);
                  Pause pause;
                  std::thread stopper([&pause] {
                      std::this_thread::sleep_for(std::chrono::milliseconds(500));
                      pause = Pause();
                      keywarden::StopRequest::raise();
                  });
                  callbacks.updateValidityGeneratedCertificate(0, 1);
                  stopper.join();
                  return pause.text();
              }),
              "in time");
}

TEST_F(LibraryCallbacks, OneThatHangsWhileItIsLoadedIsGivenUpAtAStop) {
    EXPECT_EQ(testsupport::inChild([] {
                  std::thread stopper([] {
                      std::this_thread::sleep_for(std::chrono::milliseconds(300));
                      keywarden::StopRequest::raise();
                  });
                  std::string failure = failureOf(PLUGIN_HANGING, "create");
                  stopper.join();
                  return failure;
              }),
              "Cannot load the callback library " PLUGIN_HANGING
              " for the service create: it was given up at the stop of the daemon");
}

TEST_F(LibraryCallbacks, PendingSignalIsAStopForThem) {
    EXPECT_EQ(testsupport::inChild([] {
                  const sigset_t stops = keywarden::StopRequest::signals();
                  ::pthread_sigmask(SIG_BLOCK, &stops, nullptr);
                  LibraryWrapperServiceCallbacks callbacks("started", PLUGIN_HANGING);
                  const Pause pause;
                  ::kill(::getpid(), SIGTERM);
                  callbacks.started();
                  return pause.text();
              }),
              "in time");
}

TEST_F(LibraryCallbacks, NoneIsUnloadedOnceTheDaemonStops) {
    EXPECT_EQ(testsupport::inChild([this]() -> std::string {
                  {
                      const LibraryWrapperServiceCallbacks callbacks("web", PLUGIN_THREADED);
                      keywarden::StopRequest::raise();
                  }
                  std::this_thread::sleep_for(std::chrono::milliseconds(100));
                  return Sandbox::read(record()) + (isLoaded(PLUGIN_THREADED) ? "loaded" : "unloaded") +
                         (keywarden::isCallbackLibraryLoaded() ? "" : ", not known");
              }),
              "destroy\nloaded");
}

TEST_F(LibraryCallbacks, WhetherOneIsLoadedIsKnown) {
    EXPECT_EQ(testsupport::inChild([] {
                  std::string states;
                  const auto look = [&states] { states += keywarden::isCallbackLibraryLoaded() ? "1" : "0"; };
                  look();
                  {
                      const LibraryWrapperServiceCallbacks callbacks("web", PLUGIN_RECORDER);
                      look();
                  }
                  look();
                  failureOf(PLUGIN_WITHOUT_CREATE);
                  look();
                  failureOf("/dev/null");
                  look();
                  return states;
              }),
              "01000");
}

}  // namespace
