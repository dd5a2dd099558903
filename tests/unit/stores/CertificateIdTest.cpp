#include "stores/CertificateId.h"

#include <gtest/gtest.h>

namespace {

using keywarden::certificateId;
using keywarden::hashOfId;
using keywarden::isCertificateId;

TEST(CertificateId, IsTheHashAPointAndTheSuffix) {
    EXPECT_EQ(certificateId("0a1b2c3d", 0), "0a1b2c3d.0");
    EXPECT_EQ(certificateId("0a1b2c3d", 9), "0a1b2c3d.9");
    EXPECT_EQ(hashOfId("0a1b2c3d.9"), "0a1b2c3d");
}

TEST(CertificateId, EightLowerCaseDigitsAPointAndADigitAreAnId) {
    EXPECT_TRUE(isCertificateId("0a1b2c3d.0"));
    EXPECT_TRUE(isCertificateId("00000000.9"));
    EXPECT_TRUE(isCertificateId("ffffffff.5"));
}

TEST(CertificateId, AnythingElseIsNone) {
    for (const char* text : {"", ".", "0a1b2c3d", "0a1b2c3d.", "0a1b2c3d.a", "0a1b2c3d.10", "0A1B2C3D.0",
                             "0a1b2c3g.0", "0a1b2c3.00", "0a1b2c3d00", "../b2c3d.0", " a1b2c3d.0"})
        EXPECT_FALSE(isCertificateId(text)) << text;
}

}  // namespace
