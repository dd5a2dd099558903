#include <openssl/asn1.h>
#include <openssl/x509.h>

#include "tests/unit/x509/X509Fixture.h"
#include "x509/CertificateTime.h"
#include "x509/Inspection.h"
#include "x509/OpenSslPtr.h"

namespace {

using keywarden::asn1datetime_isodatetime;
using keywarden::Asn1TimePtr;
using keywarden::set_cert_time;
using keywarden::setCertificateTime;
using keywarden::SeverityError;
using keywarden::X509_T;
using testsupport::CertificateOptions;
using testsupport::TestClock;

unsigned long long secondsOf(int type, const std::string& text) {
    const Asn1TimePtr time(ASN1_STRING_type_new(type));
    ASN1_STRING_set(time.get(), text.data(), static_cast<int>(text.size()));
    return asn1datetime_isodatetime(time.get());
}

unsigned long long utc(const std::string& text) {
    return secondsOf(V_ASN1_UTCTIME, text);
}

unsigned long long generalized(const std::string& text) {
    return secondsOf(V_ASN1_GENERALIZEDTIME, text);
}

// Reading.

TEST(CertificateTime, NoTimeIsAllBits) {
    EXPECT_EQ(asn1datetime_isodatetime(nullptr), 18446744073709551615ULL);
}

TEST(CertificateTime, ShortYearsBelow70AreOfThisCentury) {
    EXPECT_EQ(utc("690101000000Z"), 3124224000ULL);  // 2069
    EXPECT_EQ(utc("700101000000Z"), 0ULL);           // 1970
    EXPECT_EQ(utc("991231235959Z"), 946684799ULL);   // 1999
    EXPECT_EQ(utc("260301000000Z"), static_cast<unsigned long long>(kNow));
}

TEST(CertificateTime, LongYearsAreRead) {
    EXPECT_EQ(generalized("20260301000000Z"), static_cast<unsigned long long>(kNow));
    EXPECT_EQ(generalized("21280611085320Z"), 5000000000ULL);
    EXPECT_EQ(generalized("19691231235959Z"), static_cast<unsigned long long>(-1));
}

TEST(CertificateTime, FractionsAndZonesAreNotRead) {
    EXPECT_EQ(generalized("20260301000007.5Z"), kNow + 7ULL);
    EXPECT_EQ(utc("260301000007+0100"), kNow + 7ULL);
}

TEST(CertificateTime, WhatIsCutOffLeavesItsFieldAtMinusOne) {
    EXPECT_EQ(utc("2603010000Z"), kNow - 1ULL);
    EXPECT_EQ(utc("2603010000"), kNow - 1ULL);
    EXPECT_EQ(utc("26030100"), kNow - 61ULL);
}

TEST(CertificateTime, JunkIsReadWithoutHarm) {
    for (const std::string& text :
         {std::string(), std::string("Z"), std::string("\xFF\xFE", 2), std::string(3, '\0')}) {
        // Every field is -1: three times one less than 00:00:00 on the day before the last of November of the
        // year -2, which is how the month and the day before their first count.
        const auto expected = static_cast<unsigned long long>(-62201610061LL);
        EXPECT_EQ(utc(text), expected);
        EXPECT_EQ(generalized(text), expected);
        EXPECT_EQ(secondsOf(V_ASN1_OCTET_STRING, text), expected);
    }
}

TEST(CertificateTime, AnotherTypeHasNoYear) {
    // "0301" is then the month and the day.
    EXPECT_EQ(secondsOf(V_ASN1_OCTET_STRING, "0301000000Z"), static_cast<unsigned long long>(-62193657600LL));
}

// Setting one time.

class SettingTime : public X509Fixture {
  protected:
    static unsigned long long after(unsigned long long seconds) {
        const Asn1TimePtr time(ASN1_TIME_new());
        EXPECT_TRUE(setCertificateTime(time.get(), seconds));
        return asn1datetime_isodatetime(time.get());
    }
    static std::string textOf(const ASN1_TIME* time) {
        return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(time)),
                static_cast<std::size_t>(ASN1_STRING_length(time))};
    }
};

TEST_F(SettingTime, TheMomentIsTheOneAskedForWhateverTheClockSays) {
    for (const std::int64_t now : {kNow, std::int64_t{0}, std::int64_t{4000000000}}) {
        TestClock::set(now);
        for (const unsigned long long offset : {0ULL, 1ULL, 86399ULL, 86400ULL, 2147483647ULL}) {
            const auto target = static_cast<unsigned long long>(now) + offset;
            EXPECT_EQ(after(target), target) << now;
        }
    }
}

TEST_F(SettingTime, MomentsBeforeTheEpochAreSet) {
    TestClock::set(0);
    const Asn1TimePtr time(ASN1_TIME_new());
    EXPECT_TRUE(setCertificateTime(time.get(), static_cast<unsigned long long>(-1)));
    EXPECT_EQ(textOf(time.get()), "691231235959Z");
    EXPECT_TRUE(setCertificateTime(time.get(), static_cast<unsigned long long>(-86401)));
    EXPECT_EQ(textOf(time.get()), "691230235959Z");
}

TEST_F(SettingTime, TheDifferenceIsCutToTheLongOfThePlatform) {
    const unsigned long long target = kNow + 0x100000005ULL;
    EXPECT_EQ(after(target), sizeof(long) == 4 ? kNow + 5ULL : target);
}

TEST_F(SettingTime, YearsThatCannotBeEncodedAreRefused) {
    if (sizeof(long) < 8) {
        GTEST_SKIP() << "the difference is cut to 32 bits";
    }
    const Asn1TimePtr time(ASN1_TIME_new());
    EXPECT_FALSE(setCertificateTime(time.get(), 253402300800ULL));
    EXPECT_FALSE(setCertificateTime(time.get(), 9223372036854775807ULL));
    EXPECT_FALSE(setCertificateTime(time.get(), 9223372036854775808ULL));
    EXPECT_FALSE(setCertificateTime(time.get(), static_cast<unsigned long long>(-2208988801LL)));
    EXPECT_TRUE(setCertificateTime(time.get(), 253402300799ULL));
    EXPECT_EQ(asn1datetime_isodatetime(time.get()), 253402300799ULL);
}

// The period under a CA that is valid from 100 days before to 1000 days after now.

class Period : public X509Fixture {
  protected:
    static X509_T authority() {
        CertificateOptions options;
        options.notBefore = kNow - 100 * kDay;
        options.notAfter = kNow + 1000 * kDay;
        return X509_T::fromPem(makeCertificate(options).certificatePem);
    }
    /// In days from now.
    bool set(std::int64_t from, std::int64_t until, unsigned long long seconds) {
        return set_cert_time(static_cast<unsigned long long>(kNow + from * kDay),
                             static_cast<unsigned long long>(kNow + until * kDay), seconds, certificate_,
                             authority_);
    }
    void expectPeriod(std::int64_t from, std::int64_t until) const {
        EXPECT_EQ(static_cast<std::int64_t>(notBeforeOf(certificate_)), kNow + from * kDay);
        EXPECT_EQ(static_cast<std::int64_t>(notAfterOf(certificate_)), kNow + until * kDay);
    }

    const X509_T authority_ = authority();
    X509_T certificate_{X509_new()};
};

TEST_F(Period, InsideTheCasItIsKept) {
    EXPECT_TRUE(set(0, 365, 365ULL * kDay));
    expectPeriod(0, 365);
    expectLog({});
}

TEST_F(Period, AnEarlierStartIsMovedAndTheEndIsCountedFromTheStartAskedFor) {
    EXPECT_TRUE(set(-150, 200, 60ULL * kDay));
    expectPeriod(-100, -90);
}

TEST_F(Period, ALaterEndIsCutToTheCas) {
    EXPECT_TRUE(set(0, 2000, 2000ULL * kDay));
    expectPeriod(0, 1000);
}

TEST_F(Period, BothEndsAreCutByTheEndAskedFor) {
    // The end asked for is the one compared, so the CA's end replaces the one counted from the start.
    EXPECT_TRUE(set(-150, 2000, 60ULL * kDay));
    expectPeriod(-100, 1000);
}

TEST_F(Period, AMovedStartBehindTheEndFails) {
    EXPECT_FALSE(set(-150, 10, 10ULL * kDay));
    expectLog(
        {{SeverityError, "Certificate creation aborted because end date is set prior to the start date"}});
}

TEST_F(Period, AStartBehindTheCasEndFails) {
    EXPECT_FALSE(set(1500, 2000, 500ULL * kDay));
    expectLog(
        {{SeverityError, "Certificate creation aborted because end date is set prior to the start date"}});
}

TEST_F(Period, AnEndAtTheStartIsTaken) {
    EXPECT_TRUE(set(5, 5, 0));
    expectPeriod(5, 5);
}

TEST_F(Period, AnEndBeforeTheStartFails) {
    EXPECT_FALSE(set(6, 5, 0));
}

TEST_F(Period, OnlyTheLow32BitsOfTheLengthCount) {
    EXPECT_TRUE(set(-150, 200, 0x100000000ULL + 60ULL * kDay));
    expectPeriod(-100, -90);
}

TEST_F(Period, ADateThatCannotBeEncodedFails) {
    if (sizeof(long) < 8) {
        GTEST_SKIP() << "the difference is cut to 32 bits";
    }
    EXPECT_FALSE(set_cert_time(kNow, 253402300800ULL, 0, certificate_, authority_));
    expectLog(
        {{SeverityError, "Certificate creation aborted because a date is out of the range of certificates"}});
}

}  // namespace
