#include "x509/Secret.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <new>

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

// A run, since a single 'k' may as well be a byte of a pointer. The compiler may not drop what is read
// through a volatile pointer.
bool holdsText(const volatile unsigned char* bytes, std::size_t size) {
    int run = 0;
    for (std::size_t index = 0; index < size; ++index) {
        run = bytes[index] == 'k' ? run + 1 : 0;
        if (run == 4)
            return true;
    }
    return false;
}

// The text of a short secret stands in the object itself, whose memory a test may look at afterwards.
TEST(Secret, OverwritesItsTextWhenItIsDestroyed) {
    alignas(Secret) unsigned char memory[sizeof(Secret)] = {};
    auto* secret = ::new (memory) Secret("kkkkkkkkkk");
    ASSERT_EQ(static_cast<void*>(secret), static_cast<void*>(memory));
    ASSERT_TRUE(holdsText(memory, sizeof memory));
    secret->~Secret();
    EXPECT_FALSE(holdsText(memory, sizeof memory));
}

TEST(Secret, OverwritesTheOldTextWhenItGrows) {
    alignas(Secret) unsigned char memory[sizeof(Secret)] = {};
    auto* secret = ::new (memory) Secret("kkkkkkkkkk");
    secret->append(std::string(50, 'n'));  // moves to the heap
    EXPECT_FALSE(holdsText(memory, sizeof memory));
    secret->~Secret();
}

}  // namespace
