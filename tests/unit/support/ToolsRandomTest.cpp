#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <set>

#include "support/Debug.h"
#include "support/Tools.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::Tools;
using testsupport::Sandbox;

const std::string kAlphabet = "abcdefghijklmnaoqrstuvwxyz1234567890ABCDEFGHIJKLMNOPQRSTUVWXYZ";
const std::string kDevice = "/dev/urandom";

/// A name of this length, then what was traced meanwhile.
std::string nameAndTraces(unsigned length) {
    std::string name;
    keywarden::gDebug = true;
    const std::string traces = testsupport::standardErrorOf([&] { name = Tools::getRandomName(length); });
    return name + "|" + traces;
}

std::string numbers(std::uint32_t first, std::uint32_t last) {
    std::string bytes;
    for (std::uint32_t number = first; number <= last; ++number)
        bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
    return bytes;
}

/// The same with another file in the place of the random device.
std::optional<std::string> withDevice(const std::string& content, unsigned length) {
    const Sandbox sandbox;
    const std::string file = sandbox.write("device", content);
    return testsupport::inPrivateMounts([&] { testsupport::mountOver(file, kDevice); },
                                        [&] { return nameAndTraces(length); });
}

std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

TEST(ToolsRandom, NameOfNoLengthIsEmpty) {
    EXPECT_EQ(Tools::getRandomName(0), "");
}

TEST(ToolsRandom, NameHasItsLengthAndNeverAP) {
    const std::string name = Tools::getRandomName(12);
    EXPECT_EQ(name.size(), 12U);
    EXPECT_EQ(name.find('p'), std::string::npos);
    EXPECT_EQ(name.find_first_not_of(kAlphabet), std::string::npos);
}

TEST(ToolsRandom, LongNameHoldsEveryCharacterAndAMoreOften) {
    const std::string name = Tools::getRandomName(62000);
    EXPECT_EQ(std::set<char>(name.begin(), name.end()), std::set<char>(kAlphabet.begin(), kAlphabet.end()));
    EXPECT_EQ(name.find('p'), std::string::npos);
    EXPECT_GT(std::count(name.begin(), name.end(), 'a'), 1700);
    EXPECT_LT(std::count(name.begin(), name.end(), 'b'), 1300);
}

TEST(ToolsRandom, TwoNamesDiffer) {
    EXPECT_NE(Tools::getRandomName(20), Tools::getRandomName(20));
}

TEST(ToolsRandom, DeviceIsClosedAgain) {
    const auto before = openDescriptors();
    static_cast<void>(Tools::getRandomName(0));
    static_cast<void>(Tools::getRandomName(5));
    EXPECT_EQ(openDescriptors(), before);
}

TEST(ToolsRandom, EveryNumberPicksItsCharacterOfTheAlphabet) {
    const auto result = withDevice(numbers(0, 61), 62);
    if (!result)
        GTEST_SKIP() << "NOT CHECKED: the alphabet, number by number";
    EXPECT_EQ(*result, kAlphabet + "|");
}

TEST(ToolsRandom, NumbersBeyondTheAlphabetWrapAround) {
    const auto result = withDevice(numbers(62, 64) + numbers(0xFFFFFFFEU, 0xFFFFFFFEU), 4);
    if (!result)
        GTEST_SKIP() << "NOT CHECKED: numbers above 61";
    EXPECT_EQ(*result, std::string("abc") + kAlphabet[0xFFFFFFFEU % 62] + "|");
}

TEST(ToolsRandom, ShortReadIsUsedAsItStands) {
    const auto result = withDevice(std::string("\x01", 1), 2);
    if (!result)
        GTEST_SKIP() << "NOT CHECKED: a short read";
    EXPECT_EQ(result->size(), 3U) << *result;
}

TEST(ToolsRandom, MissingDeviceGivesAnEmptyNameAndATrace) {
    const auto result = testsupport::inPrivateMounts([] { testsupport::mountEmptyFolder("/dev"); },
                                                     [] { return nameAndTraces(5) + nameAndTraces(0); });
    if (!result)
        GTEST_SKIP() << "NOT CHECKED: a missing random device";
    EXPECT_EQ(*result, "|Failed to open random device file\n|Failed to open random device file\n");
}

TEST(ToolsRandom, UnreadableDeviceGivesWhatWasReadAndATrace) {
    const auto folderForDevice = [] {
        testsupport::mountEmptyFolder("/dev");
        ASSERT_EQ(::mkdir(kDevice.c_str(), 0755), 0);
    };
    const auto result = testsupport::inPrivateMounts(folderForDevice, [] { return nameAndTraces(5); });
    if (!result)
        GTEST_SKIP() << "NOT CHECKED: an unreadable random device";
    EXPECT_EQ(*result, "|Failed to read random device file\n");
}

}  // namespace
