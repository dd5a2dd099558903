// A store whose files are all dated after 19 January 2038.
#include "ServerFixture.h"
#include "tests/unit/support/LateDate.h"

namespace servertest {

using keywarden::SeverityError;
using keywarden::SeverityWarning;
using testsupport::CapturedLog;

namespace {

class ServerLateDates : public ServerTest, public testing::WithParamInterface<std::int64_t> {
  protected:
    void dateStores() const {
        for (const std::string& folder : {store().certificateDirectoryPath(), store().tmpDirectoryPath()})
            testsupport::dateTreeLate(folder, GetParam());
    }
    /// How many of the certificate's six files stand. Not by the fixture's own look, which is stat's.
    [[nodiscard]] int countOfFiles(const std::string& certificateId) const {
        const keywarden::InternalCertificatesAccessor paths = store();
        int count = 0;
        for (const std::string& path :
             {paths.certPath(certificateId), paths.certKeyPath(certificateId),
              paths.certInfoPath(certificateId), paths.certNetworkPath(certificateId),
              paths.certDetailsPath(certificateId), paths.certOverwrittenDataPath(certificateId)})
            count += keywarden::linkStatusOfPath(path) ? 1 : 0;
        return count;
    }
    static void expectNothingWrong() {
        for (const testsupport::LogLine& line : CapturedLog::lines())
            EXPECT_GT(line.severity, SeverityWarning) << line.text;
    }
};

}  // namespace

TEST_P(ServerLateDates, StartFindsItsCertificate) {
    start();
    const MadePair pair = install("late.example");
    dateStores();
    testsupport::dateLate(cnfFile, GetParam());
    restart();
    EXPECT_EQ(active(), pair.id);
    EXPECT_TRUE(server().isCertificateSelfSigned());
    EXPECT_EQ(countOfFiles(pair.id), 6);
    expectNothingWrong();
}

TEST_P(ServerLateDates, CertificateIsReplacedAndItsFilesRemoved) {
    start();
    const MadePair pair = install("late.example");
    dateStores();
    restart();
    const MadePair next = install("next.example");
    EXPECT_EQ(active(), next.id);
    EXPECT_EQ(countOfFiles(next.id), 5) << "the sixth, for the owner, comes with the next start";
    EXPECT_EQ(countOfFiles(pair.id), 0);
    expectNothingWrong();
}

INSTANTIATE_TEST_SUITE_P(Beyond, ServerLateDates,
                         testing::Values(testsupport::kIn2040, testsupport::kIn2106));

}  // namespace servertest
