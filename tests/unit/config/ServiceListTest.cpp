#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "config/ServiceConfiguration.h"
#include "testsupport/TestDevice.h"

namespace {

enum class Reading { AsIs, WithoutTypes, Failing };
Reading reading = Reading::AsIs;

// With 64-bit file offsets the C library's header gives readdir() its other name.
#if defined(_FILE_OFFSET_BITS) && _FILE_OFFSET_BITS == 64
constexpr const char* kReaddir = "readdir64";
#else
constexpr const char* kReaddir = "readdir";
#endif

}  // namespace

// In the place of the C library's, to have file systems here that no test machine has.
extern "C" dirent* readdir(DIR* folder) {
    static const auto original = reinterpret_cast<dirent* (*)(DIR*)>(::dlsym(RTLD_NEXT, kReaddir));
    if (reading == Reading::Failing) {
        errno = EIO;
        return nullptr;
    }
    dirent* const entry = original(folder);
    if (entry != nullptr && reading == Reading::WithoutTypes)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

namespace {

using keywarden::ServiceConfiguration;
using testsupport::TestDevice;
using Names = std::vector<std::string>;

class ServiceList : public testing::Test {
  protected:
    void SetUp() override {
        clear();
        std::filesystem::create_directory(folder);
    }
    void TearDown() override {
        reading = Reading::AsIs;
        clear();
        std::filesystem::create_directory(folder);
    }

    static Names sorted() {
        Names names = ServiceConfiguration::getServiceList();
        std::sort(names.begin(), names.end());
        return names;
    }

    static std::string failure() {
        try {
            static_cast<void>(ServiceConfiguration::getServiceList());
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "(none)";
    }

    void fill() const {
        for (const char* name : {"svc.conf", "svc.conf.bak", "a.b.conf", ".conf", "conf", "plain", "web.CONF",
                                 "other.conf", "dot.", ".hidden.conf", "x.confx"})
            TestDevice::get().sandbox().write("services/" + std::string(name), "");
        ASSERT_EQ(::mkdir((folder + "/d.conf").c_str(), 0755), 0);
        ASSERT_EQ(::mkfifo((folder + "/fifo.conf").c_str(), 0644), 0);
        ASSERT_EQ(::symlink("svc.conf", (folder + "/link.conf").c_str()), 0);
    }

    const std::string folder = TestDevice::get().servicesDirectory();

  private:
    void clear() const { std::filesystem::remove_all(folder); }
};

TEST_F(ServiceList, RegularFilesNamedIdDotConfAreServices) {
    fill();
    EXPECT_EQ(sorted(), (Names{"other", "svc"}));
}

TEST_F(ServiceList, EntriesOfUnknownTypeAreLookedAt) {
    fill();
    reading = Reading::WithoutTypes;
    EXPECT_EQ(sorted(), (Names{"other", "svc"}));
}

TEST_F(ServiceList, EmptyFolderHasNoServices) {
    EXPECT_EQ(ServiceConfiguration::getServiceList(), Names{});
}

TEST_F(ServiceList, ServicesComeInFolderOrder) {
    Names expected;
    for (int number = 0; number < 40; ++number)
        TestDevice::get().writeService("s" + std::to_string(number * 7 % 40), "");
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        expected.push_back(entry.path().stem().string());
    EXPECT_EQ(ServiceConfiguration::getServiceList(), expected);
}

TEST_F(ServiceList, MissingFolderFails) {
    std::filesystem::remove_all(folder);
    EXPECT_EQ(failure(), "Std exception caught while getting service list: Failed to open '" + folder +
                             "': No such file or directory");
}

TEST_F(ServiceList, FolderThatCannotBeReadFails) {
    reading = Reading::Failing;
    const std::string text = failure();
    reading = Reading::AsIs;
    EXPECT_EQ(text, "Std exception caught while getting service list: Failed to read '" + folder +
                        "': Input/output error");
}

}  // namespace
