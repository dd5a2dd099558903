// Files that are dated after 19 January 2038, where time_t may have 32 bits: stat(2) then says EOVERFLOW.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "callbacks/BinaryServiceCallbacks.h"
#include "cnf/CnfFileConfiguration.h"
#include "config/InternalCertificatesAccessor.h"
#include "config/ServiceConfiguration.h"
#include "support/FolderSet.h"
#include "support/Journal.h"
#include "support/RegularFile.h"
#include "support/Tools.h"
#include "tests/unit/support/LateDate.h"
#include "testsupport/CapturedLog.h"
#include "testsupport/CertificateFactory.h"
#include "testsupport/Sandbox.h"
#include "testsupport/TestDevice.h"
#include "x509/EVP_PKEY_T.h"
#include "x509/X509_T.h"

namespace {

using keywarden::FileStatus;
using keywarden::Folder;
using keywarden::FolderPtr;
using keywarden::FolderSet;
using keywarden::Journal;
using keywarden::Tools;
using keywarden::UniqueFd;
using testsupport::CapturedLog;
using testsupport::dateLate;
using testsupport::dateTreeLate;
using testsupport::Sandbox;

class LateDates : public testing::TestWithParam<std::int64_t> {
  protected:
    LateDates() {
        std::filesystem::create_directories(sandbox_.path("store/below"));
        sandbox_.write("store/file", "content", 0640);
        sandbox_.write("store/below/other", "more");
        EXPECT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
        EXPECT_EQ(::symlink("file", path("link").c_str()), 0);
        CapturedLog::clear();
    }
    ~LateDates() override {
        // What is thrown away is dated as today again, so that the standard library can.
        for (const char* const name : {"", "/file", "/below", "/below/other", "/fifo", "/link"})
            static_cast<void>(
                ::utimensat(AT_FDCWD, (path(".") + name).c_str(), nullptr, AT_SYMLINK_NOFOLLOW));
    }

    [[nodiscard]] std::string path(const std::string& name) const { return sandbox_.path("store/" + name); }
    void dateAll() const { dateTreeLate(sandbox_.path("store"), GetParam()); }
    void expectLate(const std::optional<FileStatus>& status, const std::string& what) const {
        ASSERT_TRUE(status) << what << ": " << std::strerror(errno);
        EXPECT_EQ(status->modificationTime, GetParam()) << what;
    }

    Sandbox sandbox_;
};

/// The test of the tests: where time_t is short, every kind of file is one that stat() cannot look at.
TEST_P(LateDates, AreBeyondStatWhereTimeIsShort) {
    dateAll();
    for (const char* const name : {"", "file", "below", "fifo", "link"}) {
        struct stat info {};
        const int result = ::lstat(path(name).c_str(), &info);
        const int error = result == 0 ? 0 : errno;
        EXPECT_EQ(error, sizeof(time_t) == 4 ? EOVERFLOW : 0) << name;
    }
}

TEST_P(LateDates, StatusIsFoundOfEveryKind) {
    dateAll();
    const FolderPtr folder = Folder::at(path("."), Folder::Owner::Ours);
    expectLate(keywarden::statusOf(folder->get()), "an open folder");
    for (const char* const name : {"file", "below", "fifo", "link"}) {
        expectLate(keywarden::statusAt(folder->get(), name), name);
        expectLate(keywarden::statusOfPath(path(name)), name);
        expectLate(keywarden::linkStatusOfPath(path(name)), name);
    }
    EXPECT_TRUE(keywarden::linkStatusOfPath(path("link"))->isLink());
    EXPECT_TRUE(keywarden::statusOfPath(path("link"))->isRegular());
    EXPECT_TRUE(keywarden::statusAt(folder->get(), "fifo")->isFifo());
    EXPECT_TRUE(keywarden::statusAt(folder->get(), "below")->isFolder());
}

TEST_P(LateDates, FolderFindsReadsAndOpens) {
    dateAll();
    const FolderPtr folder = Folder::at(path("."), Folder::Owner::Ours);
    EXPECT_TRUE(folder->isStillThere());
    std::vector<std::string> names = folder->names();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"below", "fifo", "file", "link"}));
    EXPECT_EQ(folder->read("file", 100), "content");
    EXPECT_TRUE(folder->openRegular("file"));
    EXPECT_TRUE(folder->openFifo("fifo"));
    EXPECT_FALSE(folder->openRegular("link"));
    EXPECT_EQ(folder->open("below")->read("other", 100), "more");
    EXPECT_EQ(folder->make("below", 0711)->read("other", 100), "more");
    EXPECT_EQ(folder->makeAnyway("below", 0711)->read("other", 100), "more");
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_P(LateDates, FolderChangesAndRemoves) {
    dateAll();
    const FolderPtr folder = Folder::at(path("."), Folder::Owner::Ours);
    EXPECT_TRUE(folder->rewrite("file", "another"));
    EXPECT_EQ(folder->read("file", 100), "another");
    dateLate(path("file"), GetParam());
    EXPECT_TRUE(folder->putInPlace("file", "placed"));
    EXPECT_TRUE(folder->moveAside("placed"));
    folder->setMode(0750);
    EXPECT_EQ(keywarden::statusOf(folder->get())->permissions(), 0750U);
    EXPECT_TRUE(folder->makeFifo("fifo", 0660, ""));
    EXPECT_EQ(folder->removeTree("below"), std::nullopt);
    EXPECT_EQ(folder->empty(), std::nullopt);
    EXPECT_EQ(folder->names(), std::vector<std::string>{});
}

TEST_P(LateDates, FolderSetFindsReadsAndSetsRights) {
    dateAll();
    FolderSet folders({path("."), path("below")});
    EXPECT_TRUE(folders.exists(path("file")));
    expectLate(folders.status(path("below/other")), "a file of the second folder");
    EXPECT_EQ(folders.read(path("below/other"), 100), "more");
    folders.setMode(path("file"), 0600);
    EXPECT_EQ(folders.status(path("file"))->permissions(), 0600U);
    folders.prepare(1, 0711, "", false);
    EXPECT_EQ(keywarden::statusOfPath(path("below"))->permissions(), 0711U);
    folders.noticeWhetherThere();
    folders.remove(path("file"));
    EXPECT_FALSE(folders.exists(path("file")));
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_P(LateDates, ToolsFindAndSetRights) {
    dateAll();
    for (const char* const name : {"file", "below", "fifo", "link"})
        EXPECT_TRUE(Tools::fileExist(path(name))) << name;
    EXPECT_EQ(Tools::getRights(path("file")).mode, S_IFREG | 0640U);
    EXPECT_EQ(Tools::getRights(path("fifo")).mode, S_IFIFO | 0600U);
    Tools::changeMode(path("file"), 0600);
    EXPECT_EQ(Tools::getRights(path("file")).mode, S_IFREG | 0600U);
    Tools::createDirectory(path("below"), 0711);
    EXPECT_EQ(Tools::getRights(path("below")).mode, S_IFDIR | 0711U);
    EXPECT_EQ(Tools::removeFile(path("file")), 0);
    EXPECT_EQ(Tools::removeFiles(path("below")), 0);
    EXPECT_FALSE(Tools::fileExist(path("below")));
}

TEST_P(LateDates, RegularFilesAreRead) {
    dateAll();
    EXPECT_EQ(keywarden::readRegularFile(path("file"), 100), "content");
    EXPECT_EQ(keywarden::readRegularFile(path("link"), 100), "content");
}

TEST_P(LateDates, CertificatesAndKeysAreRead) {
    const testsupport::IssuedCertificate pair = testsupport::makeCertificate({});
    sandbox_.write("store/file", pair.certificatePem);
    sandbox_.write("store/below/other", pair.keyPem, 0600);
    dateAll();
    EXPECT_NE(keywarden::X509_T(path("file")).get(), nullptr);
    EXPECT_NE(keywarden::EVP_PKEY_T(path("below/other")).get(), nullptr);
    EXPECT_TRUE(Tools::isTheSameCertificate(path("file"), path("link")));
}

TEST_P(LateDates, JournalIsFollowed) {
    sandbox_.write("store/.file.7.0.new", "new content", 0600);
    sandbox_.write("store/below/.journal",
                   Journal::textOf({{{0, ".file.7.0.new", "file"}, {1, "", "other"}}, {{"new", "a.0"}}}),
                   0600);
    dateAll();
    Journal journal({path("."), path("below")});
    EXPECT_TRUE(journal.stands());
    journal.recover();
    EXPECT_EQ(Sandbox::read(path("file")), "new content");
    EXPECT_FALSE(keywarden::linkStatusOfPath(path("below/other")));
    EXPECT_EQ(journal.toBeTold(), (Journal::Events{{"new", "a.0"}}));
    EXPECT_FALSE(CapturedLog::containsPart("refused")) << CapturedLog::dump();
}

TEST_P(LateDates, CallbackScriptIsTaken) {
    const std::string script = sandbox_.write("store/file", "#!/bin/sh\nexit 0\n", 0755);
    dateAll();
    keywarden::BinaryServiceCallbacks callbacks("web", script);
    callbacks.started();
    EXPECT_TRUE(CapturedLog::lines().empty()) << CapturedLog::dump();
}

TEST_P(LateDates, ServicesSettingsAndActiveFilesAreFound) {
    const auto& device = testsupport::TestDevice::get();
    const std::string settings = sandbox_.write("store/file", "CONFIG_KEY PRIME256V1\nCN late.example\n");
    const std::string service =
        device.writeService("late", "server yes\nmanagmentGroup " + testsupport::TestDevice::group() +
                                        "\nkeyGroup " + testsupport::TestDevice::group() +
                                        "\ncallbackScript /bin/true\ncnfFile " + settings + "\n");
    const keywarden::InternalCertificatesAccessor store("late", "server");
    device.sandbox().write("keyward/late/server/.cacheddata/active.txt", "0a1b2c3d.0");
    dateAll();
    dateLate(service, GetParam());
    dateLate(device.servicesDirectory(), GetParam());
    dateLate(store.activePath(), GetParam());
    const std::vector<std::string> services = keywarden::ServiceConfiguration::getServiceList();
    EXPECT_EQ(std::count(services.begin(), services.end(), "late"), 1);
    EXPECT_EQ(keywarden::ServiceConfiguration("late").getCnfFile(), settings);
    EXPECT_EQ(keywarden::CnfFileConfiguration(settings).getCN(), "late.example");
    EXPECT_EQ(store.getActive(), "0a1b2c3d.0");
    ::unlink(service.c_str());
}

INSTANTIATE_TEST_SUITE_P(Beyond, LateDates, testing::Values(testsupport::kIn2040, testsupport::kIn2106));

}  // namespace
