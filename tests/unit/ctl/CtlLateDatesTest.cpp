// The operator's client before files that are dated after 19 January 2038.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "CheckedDevice.h"
#include "ctl/AnswerFifo.h"
#include "ctl/Output.h"
#include "ctl/Problem.h"
#include "ctl/Stores.h"
#include "ctl/check/Checker.h"
#include "ctl/check/Identity.h"
#include "tests/unit/support/LateDate.h"
#include "testsupport/TestDevice.h"

namespace {

using testsupport::dateLate;
using testsupport::Sandbox;

class CtlLateDates : public testing::TestWithParam<std::int64_t> {
  protected:
    Sandbox sandbox;
};

constexpr std::array<std::int64_t, 2> kDates = {testsupport::kIn2040, testsupport::kIn2106};

}  // namespace

// Not by parameter: such tests run behind all others, of which some have read another device's configuration.
TEST(CheckLateDates, NothingIsWrongWithThem) {
    REQUIRE_CHECKED_DEVICES();
    for (const std::int64_t date : kDates) {
        CheckedDevice device;
        device.storePair({});
        device.append("services/web.conf", "trustedClients yes");
        device.storeTrusted("client", {});
        testsupport::dateTreeLate(device.sandbox().path(), date);
        EXPECT_THAT(device.check(), testing::IsEmpty()) << date;
    }
}

TEST(CheckLateDates, WhatIsWrongWithThemIsFound) {
    REQUIRE_CHECKED_DEVICES();
    for (const std::int64_t date : kDates) {
        CheckedDevice device;
        const std::string id = device.storePair({});
        device.rights("store/web/server/" + id + ".key", 0644, CheckedDevice::kUser, CheckedDevice::kKeys);
        device.rights("owner.sh", 0777, 0, 0);
        device.write("services/b.conf.bak", "");
        testsupport::dateTreeLate(device.sandbox().path(), date);
        EXPECT_THAT(
            device.check(),
            testing::ElementsAre(
                "~/services/b.conf.bak: warning: the daemon takes this for no service: its name is not "
                "'<service>.conf' with that point as its first [ignored-file]",
                testing::HasSubstr(
                    "everybody may write '~/owner.sh', which the daemon runs [open-to-others]"),
                "~/store/web/server/" + id +
                    ".key: error: everybody may use this private key: its mode is 0644 [key-readable]"))
            << date;
    }
}

TEST_P(CtlLateDates, StoresAreRead) {
    const auto& device = testsupport::TestDevice::get();
    const std::string store = "keyward/latectl/server/";
    const std::string id = "0a1b2c3d.0";
    std::vector<std::string> files = {
        device.sandbox().write(store + ".cacheddata/active.txt", id),
        device.sandbox().write(store + ".cacheddata/csr.csr", "a request"),
        device.sandbox().write(store + id, testsupport::makeCertificate({}).certificatePem + "\n"),
        device.sandbox().write("keyward/latectl/ca/.cacheddata/list.txt", id + "\n")};
    for (const std::string& file : files)
        dateLate(file, GetParam());
    const auto active = keywardctl::activeCertificateOf("latectl");
    ASSERT_TRUE(active);
    EXPECT_EQ(active->installedAt, GetParam());
    EXPECT_TRUE(keywardctl::isRequestPending("latectl"));
    EXPECT_EQ(keywardctl::storedIds("latectl", "ca"), std::vector<std::string>{id});
    for (const std::string& file : files)
        ::unlink(file.c_str());
}

TEST_P(CtlLateDates, FifoOfAnEarlierRequesterIsReplacedInALateFolder) {
    ASSERT_EQ(::mkfifo(sandbox.path("web.out").c_str(), 0600), 0);
    dateLate(sandbox.path("web.out"), GetParam());
    dateLate(sandbox.path(), GetParam());
    {
        const keywardctl::AnswerFifo fifo(sandbox.path(), "web");
        EXPECT_TRUE(fifo.replacedAnother());
        dateLate(sandbox.path("web.out"), GetParam());
    }
    EXPECT_FALSE(keywarden::linkStatusOfPath(sandbox.path("web.out"))) << "it removes its own";
}

TEST_P(CtlLateDates, AnOutputFileIsReplacedWhereItsLinkLeads) {
    const std::string file = sandbox.write("file", "old");
    ASSERT_EQ(::symlink("file", sandbox.path("link").c_str()), 0);
    dateLate(file, GetParam());
    keywardctl::writeOutput(sandbox.path("link"), "new");
    EXPECT_EQ(Sandbox::read(file), "new");
    EXPECT_TRUE(keywarden::linkStatusOfPath(sandbox.path("link"))->isLink());
    keywardctl::writeOutput(sandbox.path("fresh"), "new");
    EXPECT_EQ(Sandbox::read(sandbox.path("fresh")), "new");
}

TEST_P(CtlLateDates, AccessIsWorkedOut) {
    const std::string file = sandbox.write("folder/file", "", 0644);
    dateLate(file, GetParam());
    dateLate(sandbox.path("folder"), GetParam());
    using keywardctl::check::Access;
    const keywardctl::check::Identity nobody("nobody");
    EXPECT_EQ(nobody.access(file, keywardctl::check::kRead).access, Access::Granted);
    EXPECT_EQ(nobody.access(file, keywardctl::check::kWrite).access, Access::Refused);
}

INSTANTIATE_TEST_SUITE_P(Beyond, CtlLateDates, testing::Values(testsupport::kIn2040, testsupport::kIn2106));
