#include "Attributes.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Files.h"
#include "FileSystem.h"
#include "Process.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

// Two attributes are of a kind that any file system has: names are told, but not kept.
class AttributesTest : public testing::Test {
protected:
    AttributesTest() : path_(scratch_.Write("file", "x")), file_(open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {}

    void SetUp() override {
        if (fsetxattr(file_.get(), "user.probe", "", 0, 0) != 0 && errno == ENOTSUP)
            GTEST_SKIP() << "the file system has no attributes";
        ASSERT_EQ(fremovexattr(file_.get(), "user.probe"), 0);
    }

    Attributes Read() const {
        Attributes attributes;
        EXPECT_EQ(ReadAttributes(file_.get(), attributes), std::nullopt);
        return attributes;
    }
    Trouble Write(const Attributes& attributes) const { return WriteAttributes(file_.get(), attributes); }
    // Mode 0640, the file's own user, these attributes.
    static Attributes With(std::vector<ExtendedAttribute> extended) {
        return {0640, geteuid(), getegid(), std::move(extended)};
    }

    const Umask umask_{022};
    const ScratchDirectory scratch_;
    const std::string path_;
    const Descriptor file_;
};

TEST_F(AttributesTest, OfAPlainFileAreItsModeAndOwner) {
    EXPECT_EQ(Read(), (Attributes{0644, geteuid(), getegid(), {}}));
}

TEST_F(AttributesTest, AreReadAsTheyWereWrittenInTheOrderOfTheirNames) {
    const std::string value("\0\xff\n", 3);
    const Attributes attributes = With({{"user.a", value}, {"user.b", ""}, {"user.c", "text"}});
    for (const char* const name : {"user.c", "user.a", "user.b"})
        ASSERT_EQ(fsetxattr(file_.get(), name, "old", 3, 0), 0);

    EXPECT_EQ(Write(attributes), std::nullopt);

    EXPECT_EQ(Read(), attributes);
    EXPECT_EQ(PermissionsOf(path_), 0640u);
}

TEST_F(AttributesTest, AreComparedWhole) {
    const Attributes one = With({{"user.a", "1"}});
    EXPECT_FALSE(one == With({}));
    EXPECT_FALSE(one == With({{"user.a", "2"}}));
    EXPECT_FALSE(one == With({{"user.b", "1"}}));
    Attributes other = one;
    other.mode = 0600;
    EXPECT_FALSE(one == other);
    other = one;
    ++other.user;
    EXPECT_FALSE(one == other);
    other = one;
    ++other.group;
    EXPECT_FALSE(one == other);
}

TEST_F(AttributesTest, ThatAreNotWantedAreRemoved) {
    ASSERT_EQ(fsetxattr(file_.get(), "user.kept", "1", 1, 0), 0);
    ASSERT_EQ(fsetxattr(file_.get(), "user.other", "2", 1, 0), 0);

    EXPECT_EQ(Write(With({{"user.kept", "3"}})), std::nullopt);

    EXPECT_EQ(Read(), With({{"user.kept", "3"}}));
}

TEST_F(AttributesTest, ThatBelongToAPolicyAreLeftAlone) {
    const Replaced names(calls::flistxattr, [](int, char* list, size_t) -> ssize_t {
        const char text[] = "security.selinux\0user.a\0security.capability\0system.posix_acl_access\0userx";
        std::memcpy(list, text, sizeof text);
        return sizeof text;
    });
    std::vector<std::string> read;
    const Replaced values(calls::fgetxattr, [&read](int, const char* name, void*, size_t) -> ssize_t {
        read.push_back(name);
        return 0;
    });

    EXPECT_EQ(Read().extended.size(), 3u);

    EXPECT_THAT(read, testing::ElementsAre("user.a", "security.capability", "system.posix_acl_access"));
}

TEST_F(AttributesTest, OfARootsFileHaveItsCapabilitiesAndItsOwner) {
    SKIP_UNLESS_ROOT();
    // cap_net_bind_service, permitted and effective.
    const std::string capability("\1\0\0\2\0\4\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20);
    const Attributes attributes{04755, 12, 34, {{"security.capability", capability}}};

    EXPECT_EQ(Write(attributes), std::nullopt);

    EXPECT_EQ(Read(), attributes) << "a change of the owner takes set-id bits and capabilities away";
}

TEST_F(AttributesTest, HaveNoExtendedOnesWhereTheFileSystemHasNone) {
    const Replaced replaced(calls::flistxattr, [](int, char*, size_t) -> ssize_t {
        errno = ENOTSUP;
        return -1;
    });

    EXPECT_TRUE(Read().extended.empty());
}

TEST_F(AttributesTest, ThatAreThereAlreadyAreNotWrittenAgain) {
    const Attributes attributes = Read();
    const Replaced owner(calls::fchown, [](int, uid_t, gid_t) {
        ADD_FAILURE();
        return -1;
    });

    EXPECT_EQ(Write(attributes), std::nullopt);
}

TEST_F(AttributesTest, SayWhyTheyCannotBeReadOrWritten) {
    const Attributes wanted = With({{"user.a", "1"}});
    ASSERT_EQ(fsetxattr(file_.get(), "user.b", "1", 1, 0), 0);
    const auto fails = [](auto...) {
        errno = EIO;
        return -1;
    };
    Attributes read;
    const std::string cause = "Input/output error";
    {
        const Replaced replaced(calls::fstat, fails);
        EXPECT_EQ(ReadAttributes(file_.get(), read), cause);
        EXPECT_EQ(Write(wanted), cause);
    }
    {
        const Replaced replaced(calls::flistxattr, fails);
        EXPECT_EQ(ReadAttributes(file_.get(), read), cause);
    }
    {
        const Replaced replaced(calls::fgetxattr, fails);
        EXPECT_EQ(ReadAttributes(file_.get(), read), cause);
    }
    {
        const Replaced replaced(calls::fremovexattr, fails);
        EXPECT_EQ(Write(wanted), cause);
    }
    {
        const Replaced replaced(calls::fchown, fails);
        EXPECT_EQ(Write(wanted), cause);
    }
    {
        const Replaced replaced(calls::fchmod, fails);
        EXPECT_EQ(Write(wanted), cause);
    }
    {
        const Replaced replaced(calls::fsetxattr, fails);
        EXPECT_EQ(Write(wanted), cause);
    }
    EXPECT_EQ(Write(wanted), std::nullopt);
}

}  // namespace
