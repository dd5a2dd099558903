#include "tests/unit/stores/StoreFixture.h"

namespace {

using keywarden::X509_T;

class StorePolicy : public StoreTest {};

TEST_F(StorePolicy, NothingConfiguredIsNoLimitAndNoUniqueness) {
    EXPECT_EQ(authorities().getMaxNumberOfCertificates(), 0U);
    EXPECT_EQ(clients().getMaxNumberOfCertificates(), 0U);
    EXPECT_FALSE(authorities().hashMustBeUnique());
    EXPECT_FALSE(clients().hashMustBeUnique());
}

TEST_F(StorePolicy, EachStoreHasItsOwnLimit) {
    configure("maximumCA 5\nmaximumTrustedClients 7\n");
    EXPECT_EQ(authorities().getMaxNumberOfCertificates(), 5U);
    EXPECT_EQ(clients().getMaxNumberOfCertificates(), 7U);
}

TEST_F(StorePolicy, EachStoreHasItsOwnUniqueness) {
    configure("uniqueCaByCn yes\n");
    EXPECT_TRUE(authorities().hashMustBeUnique());
    EXPECT_FALSE(clients().hashMustBeUnique());
    configure("uniqueTrustedClientByCn yes\n");
    EXPECT_FALSE(authorities().hashMustBeUnique());
    EXPECT_TRUE(clients().hashMustBeUnique());
}

TEST_F(StorePolicy, OnlyAnAuthorityIsValidAmongTheAuthorities) {
    EXPECT_TRUE(authorities().isValidCertificate(X509_T::fromPem(pem("device", true))));
    EXPECT_FALSE(authorities().isValidCertificate(X509_T::fromPem(pem("device", false))));
    EXPECT_TRUE(clients().isValidCertificate(X509_T::fromPem(pem("device", true))));
    EXPECT_TRUE(clients().isValidCertificate(X509_T::fromPem(pem("device", false))));
}

TEST_F(StorePolicy, LimitFollowsAReloadOfTheConfiguration) {
    const auto store = authorities();
    device().writeService(service_, "cnfFile /dev/null\nca yes\nmaximumCA 5\n");
    configuration_->reload();
    EXPECT_EQ(store.getMaxNumberOfCertificates(), 5U);
}

}  // namespace
