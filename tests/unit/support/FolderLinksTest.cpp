// Whose links a configured path may lead over.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "support/Accounts.h"
#include "support/FileWriteError.h"
#include "support/Folder.h"
#include "testsupport/Child.h"
#include "testsupport/Sandbox.h"

namespace {

using keywarden::FileWriteError;
using keywarden::Folder;
using testsupport::Sandbox;

class FolderLinks : public testing::Test {
  protected:
    FolderLinks() {
        std::filesystem::create_directories(sandbox_.path("real/below"));
        std::filesystem::create_directory_symlink("real", link_);
    }
    void giveLinkTo(uid_t user) const { ASSERT_EQ(::lchown(link_.c_str(), user, static_cast<gid_t>(-1)), 0); }
    /// Where the path leads, or why it does not.
    [[nodiscard]] std::string walk() const {
        try {
            static_cast<void>(Folder::at(link_ + "/below", Folder::Owner::Anybody));
            return "opened";
        } catch (const FileWriteError& error) {
            return error.what();
        }
    }
    [[nodiscard]] std::string refusal() const {
        return "Refusing the link 'link', which belongs to somebody else, on the way to '" + link_ +
               "/below': Operation not permitted";
    }

    Sandbox sandbox_;
    std::string link_ = sandbox_.path("link");
};

TEST_F(FolderLinks, AsRootOnlyThoseOfRootAreFollowed) {
    ASSERT_EQ(::geteuid(), 0U);
    EXPECT_EQ(walk(), "opened");
    giveLinkTo(*keywarden::userIdOf("daemon"));
    EXPECT_EQ(walk(), refusal());
}

TEST_F(FolderLinks, AsAnotherUserThoseOfRootAndItsOwnAreFollowed) {
    const auto walkAsNobody = [this] {
        return testsupport::inChild([this] {
            testsupport::becomeNobody();
            return walk();
        });
    };
    EXPECT_EQ(walkAsNobody(), "opened");
    giveLinkTo(65534);
    EXPECT_EQ(walkAsNobody(), "opened");
    giveLinkTo(*keywarden::userIdOf("daemon"));
    EXPECT_EQ(walkAsNobody(), refusal());
}

}  // namespace
