#include "x509/Secret.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

using keywarden::Secret;

TEST(Secret, HoldsItsText) {
    const Secret secret("private");
    EXPECT_EQ(secret.text(), "private");
}

TEST(Secret, GrowsByWhatIsAppended) {
    Secret secret(std::string(100, 'k'));
    secret.append("\n");
    secret.append("");
    EXPECT_EQ(secret.text(), std::string(100, 'k') + "\n");
}

TEST(Secret, AnEmptyOneIsHarmless) {
    Secret secret("");
    EXPECT_EQ(secret.text(), "");
    secret.append("x");
    EXPECT_EQ(secret.text(), "x");
}

// The text of a short secret stands in the object itself, whose memory a test may look at afterwards.
TEST(Secret, OverwritesItsTextWhenItIsDestroyed) {
    alignas(Secret) unsigned char memory[sizeof(Secret)] = {};
    auto* secret = ::new (memory) Secret("kkkkkkkkkk");
    ASSERT_EQ(static_cast<void*>(secret), static_cast<void*>(memory));
    ASSERT_GE(std::count(std::begin(memory), std::end(memory), 'k'), 10);
    secret->~Secret();
    // The compiler may not drop what is read through a volatile pointer.
    const volatile unsigned char* bytes = memory;
    EXPECT_EQ(std::count(bytes, bytes + sizeof memory, 'k'), 0);
}

TEST(Secret, OverwritesTheOldTextWhenItGrows) {
    alignas(Secret) unsigned char memory[sizeof(Secret)] = {};
    auto* secret = ::new (memory) Secret("kkkkkkkkkk");
    secret->append(std::string(50, 'n'));  // moves to the heap
    const volatile unsigned char* bytes = memory;
    EXPECT_EQ(std::count(bytes, bytes + sizeof memory, 'k'), 0);
    secret->~Secret();
}

}  // namespace
