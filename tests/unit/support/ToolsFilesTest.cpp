#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "support/Debug.h"
#include "support/Tools.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::Tools;
using testsupport::Sandbox;

std::string tracesOf(const std::function<void()>& action) {
    keywarden::gDebug = true;
    std::string traces = testsupport::standardErrorOf(action);
    keywarden::gDebug = false;
    return traces;
}

std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

class ToolsFiles : public testing::Test {
  protected:
    bool same(const std::string& a, const std::string& b) const {
        return Tools::isTheSameCertificate(sandbox.write("a.pem", a), sandbox.write("b.pem", b));
    }

    Sandbox sandbox;
    std::string missing = sandbox.path("missing");
};

TEST_F(ToolsFiles, AnythingThatCanBeLookedAtExists) {
    EXPECT_TRUE(Tools::fileExist(sandbox.write("file", "")));
    EXPECT_TRUE(Tools::fileExist(sandbox.path()));
    EXPECT_FALSE(Tools::fileExist(missing));
    ASSERT_EQ(::symlink(missing.c_str(), sandbox.path("link").c_str()), 0);
    EXPECT_FALSE(Tools::fileExist(sandbox.path("link")));
}

TEST_F(ToolsFiles, FolderThatCannotBeMadeIsOnlyTraced) {
    const std::string deep = sandbox.path("no/such/parent");
    EXPECT_EQ(tracesOf([&] { Tools::createDirectory(deep, 0711); }), "Impossible to create " + deep + "\n");
    const std::string file = sandbox.write("file", "x", 0640);
    EXPECT_EQ(tracesOf([&] { Tools::createDirectory(file, 0711); }), "Impossible to create " + file + "\n");
    EXPECT_EQ(Sandbox::mode(file), 0640U);
    EXPECT_EQ(testsupport::standardErrorOf([&] { Tools::createDirectory(deep, 0711); }), "");
}

TEST_F(ToolsFiles, FolderIsClosedAgainAlsoAfterAFailure) {
    EXPECT_EQ(testsupport::inChild([this] {
                  testsupport::becomeNobody();
                  const auto before = openDescriptors();
                  for (int round = 0; round < 5; ++round)
                      EXPECT_THROW(Tools::createDirectory(sandbox.path(), 0711), std::runtime_error);
                  return openDescriptors() == before ? "closed" : "left open";
              }),
              "closed");
    const auto before = openDescriptors();
    Tools::createDirectory(sandbox.path(), 0755);
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ToolsFiles, FileIsRemovedWithoutATrace) {
    const std::string file = sandbox.write("file", "x");
    int result = -2;
    EXPECT_EQ(tracesOf([&] { result = Tools::removeFile(file); }), "");
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(Sandbox::exists(file));
}

TEST_F(ToolsFiles, RemovingAMissingFileIsTraced) {
    int result = -2;
    EXPECT_EQ(tracesOf([&] { result = Tools::removeFile(missing); }),
              "The file '" + missing + "' not found for removal.\n");
    EXPECT_EQ(result, -1);
}

TEST_F(ToolsFiles, FailureToRemoveIsTraced) {
    sandbox.write("folder/file", "x");
    const std::string folder = sandbox.path("folder");
    int result = -2;
    EXPECT_EQ(tracesOf([&] { result = Tools::removeFile(folder); }),
              "Failed to remove file '" + folder + "' : error: Directory not empty\n");
    EXPECT_EQ(result, -1);
}

TEST_F(ToolsFiles, WholeTreeIsRemovedAndLinksAreNotFollowed) {
    const std::string kept = sandbox.write("outside/kept", "x");
    sandbox.write("tree/a/b/file", "x");
    sandbox.write("tree/.hidden", "x");
    ASSERT_EQ(::symlink(sandbox.path("outside").c_str(), sandbox.path("tree/a/link").c_str()), 0);
    ASSERT_EQ(::symlink(kept.c_str(), sandbox.path("tree/filelink").c_str()), 0);
    ASSERT_EQ(::mkfifo(sandbox.path("tree/fifo").c_str(), 0600), 0);
    EXPECT_EQ(Tools::removeFiles(sandbox.path("tree")), 0);
    EXPECT_FALSE(Sandbox::exists(sandbox.path("tree")));
    EXPECT_EQ(Sandbox::read(kept), "x");
}

TEST_F(ToolsFiles, LinkToATreeIsRemovedAlone) {
    const std::string kept = sandbox.write("outside/kept", "x");
    ASSERT_EQ(::symlink(sandbox.path("outside").c_str(), sandbox.path("link").c_str()), 0);
    EXPECT_EQ(Tools::removeFiles(sandbox.path("link")), 0);
    EXPECT_FALSE(Sandbox::exists(sandbox.path("link")));
    EXPECT_TRUE(Sandbox::exists(kept));
}

TEST_F(ToolsFiles, TreeDeeperThanTheOpenFoldersIsRemoved) {
    std::string path = "deep";
    for (int level = 0; level < 150; ++level)
        path += "/d";
    sandbox.write(path + "/file", "x");
    EXPECT_EQ(Tools::removeFiles(sandbox.path("deep")), 0);
    EXPECT_FALSE(Sandbox::exists(sandbox.path("deep")));
}

TEST_F(ToolsFiles, RemovingAMissingTreeFails) {
    EXPECT_EQ(Tools::removeFiles(missing), -1);
}

TEST_F(ToolsFiles, FailureInTheTreeStopsTheWalkAndIsPrintedWithoutDebugging) {
    const std::string file = sandbox.write("tree/file", "x");
    const std::string answer = testsupport::inChild([this] {
        testsupport::becomeNobody();
        int result = 0;
        const std::string printed =
            testsupport::standardErrorOf([&] { result = Tools::removeFiles(sandbox.path("tree")); });
        return printed + std::to_string(result);
    });
    EXPECT_EQ(answer, file + ": Permission denied\n-1");
    EXPECT_TRUE(Sandbox::exists(file));
}

TEST_F(ToolsFiles, VisitorRemovesOneEntryAndPrintsItsFailure) {
    const std::string file = sandbox.write("file", "x");
    int result = -2;
    const auto visit = [&] { result = Tools::removeOnFile(file.c_str(), nullptr, 0, nullptr); };
    EXPECT_EQ(testsupport::standardErrorOf(visit), "");
    EXPECT_EQ(result, 0);
    EXPECT_FALSE(Sandbox::exists(file));
    EXPECT_EQ(testsupport::standardErrorOf(visit), file + ": No such file or directory\n");
    EXPECT_EQ(result, -1);
}

const std::string kBegin = "-----BEGIN CERTIFICATE-----\n";
const std::string kEnd = "-----END CERTIFICATE-----\n";

TEST_F(ToolsFiles, CertificatesWithTheSameLinesAreTheSame) {
    EXPECT_TRUE(same(kBegin + "AAA\nBBB\n" + kEnd, kBegin + "AAA\nBBB\n" + kEnd));
}

TEST_F(ToolsFiles, OnlyTheFirstCertificateCounts) {
    EXPECT_TRUE(
        same(kBegin + "AAA\n" + kEnd + kBegin + "BBB\n" + kEnd, kBegin + "AAA\n" + kEnd + kBegin + "CCC\n"));
    EXPECT_FALSE(same(kBegin + "AAA\n" + kEnd + kBegin + "BBB\n" + kEnd, kBegin + "BBB\n" + kEnd));
}

TEST_F(ToolsFiles, LinesOutsideTheCertificateDoNotCount) {
    EXPECT_TRUE(same("subject x\n\n" + kBegin + "AAA\n" + kEnd + "tail\n", kBegin + "AAA\n" + kEnd));
}

TEST_F(ToolsFiles, CertificatesWithDifferentLinesDiffer) {
    EXPECT_FALSE(same(kBegin + "AAA\n" + kEnd, kBegin + "AAB\n" + kEnd));
    EXPECT_FALSE(same(kBegin + "AAA\n" + kEnd, kBegin + kEnd));
    EXPECT_FALSE(same(kBegin + "AAA\n" + kEnd, kBegin + "AAA \n" + kEnd));
}

TEST_F(ToolsFiles, FileWithoutACertificateIsNeverTheSame) {
    const std::string certificate = kBegin + "AAA\n" + kEnd;
    EXPECT_FALSE(same("AAA\n", "AAA\n"));
    EXPECT_FALSE(same(certificate, "AAA\n"));
    EXPECT_FALSE(same("", certificate));
    EXPECT_FALSE(same(certificate, " " + certificate));
    EXPECT_FALSE(same("-----BEGIN CERTIFICATE-----\r\nAAA\n" + kEnd, certificate));
    EXPECT_FALSE(Tools::isTheSameCertificate(missing, sandbox.write("c.pem", certificate)));
    EXPECT_FALSE(Tools::isTheSameCertificate(sandbox.path(), sandbox.path()));
}

TEST_F(ToolsFiles, FileThatEndsWithinItsCertificateHasShownNoDifference) {
    EXPECT_TRUE(same(kBegin + "AAA\n", kBegin + "AAA\nBBB\n" + kEnd));
    EXPECT_TRUE(same(kBegin, kBegin + "AAA\n" + kEnd));
    EXPECT_TRUE(same(kBegin + "AAA\nBBB\n" + kEnd, kBegin + "AAA\n"));
    EXPECT_TRUE(same(kBegin + "AAA\n" + kEnd, kBegin + "AAA\n-----END CERTIFICATE-----"));
    EXPECT_FALSE(same(kBegin + "AAA\n", kBegin + "BBB\n"));
}

}  // namespace
