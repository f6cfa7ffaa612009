#include "Processes.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Files.h"
#include "Package.h"
#include "Sanitizer.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ProcessesTest : public testing::Test {
protected:
    ProcessesTest() {
        package_.Bring("bin/tool", "new");
        package_.Install("tool", "old");
        package_.WriteEntries("bin/tool");
    }

    // What `vfilelist check` shows where /proc has these processes; `options` fill their directories.
    std::string CheckWith(const std::vector<std::string>& options) const {
        // The loader looks for the program's libraries beside what /proc/self/exe leads to.
        const std::vector<std::string> inside =
            PrivateNamespace({"--ro-bind", package_.scratch().Path(), package_.scratch().Path(), "--tmpfs",
                              "/proc", "--dir", "/proc/self", "--symlink", VFILELIST_PATH, "/proc/self/exe"});
        return RunProcess(
                   Concatenate(Concatenate(inside, options), {VFILELIST_PATH, "check", package_.ListPath()}))
            .out;
    }

    // Gives the process a file with this text.
    std::vector<std::string> File(const std::string& process, const std::string& name,
                                  const std::string& text) const {
        return {"--ro-bind", package_.scratch().Write(process + "." + name, text),
                "/proc/" + process + "/" + name};
    }
    std::vector<std::string> Executing(const std::string& process) const {
        return {"--dir", "/proc/" + process, "--symlink", package_.InstalledPath("tool"),
                "/proc/" + process + "/exe"};
    }
    // A line of a process's maps, with the device that it shows.
    std::string Mapped(const std::string& path, dev_t shownDevice) const {
        struct stat status {};
        EXPECT_EQ(stat(path.c_str(), &status), 0);
        char line[100];
        (void)snprintf(line, sizeof(line), "7f00-7f10 r-xp 00000000 %02x:%02x %lu    ", major(shownDevice),
                       minor(shownDevice), static_cast<unsigned long>(status.st_ino));
        return line + path + "\n";
    }
    dev_t Device() const {
        struct stat status {};
        EXPECT_EQ(stat(package_.InstalledPath("tool").c_str(), &status), 0);
        return status.st_dev;
    }

    const Package package_;
};

#define SKIP_WITHOUT_PROC_OF_ITS_OWN()                                                                      \
    if (VFS_TEST_ADDRESS_SANITIZER || VFS_TEST_THREAD_SANITIZER) GTEST_SKIP() << "a sanitizer reads /proc"; \
    SKIP_WITHOUT_PRIVATE_NAMESPACE()

TEST_F(ProcessesTest, NamesProgramAndUnit) {
    SKIP_WITHOUT_PROC_OF_ITS_OWN();
    const auto shown = [this](const std::string& groups) {
        return CheckWith(Concatenate(Executing("1908"), Concatenate(File("1908", "comm", "a tool\n"),
                                                                    File("1908", "cgroup", groups))));
    };

    EXPECT_THAT(shown("0::/\n"), HasSubstr("(process 1908 a tool)"));
    EXPECT_THAT(shown("0::/system.slice/tool.service\n"), HasSubstr("(process 1908 a tool [tool.service])"));
    EXPECT_THAT(shown("9:pids:/user.slice/user@0.service/app.scope/inner\n0::/\n"),
                HasSubstr("(process 1908 a tool [app.scope])"));
}

TEST_F(ProcessesTest, NamesAFewAndCountsTheRest) {
    SKIP_WITHOUT_PROC_OF_ITS_OWN();
    std::vector<std::string> options;
    for (int pid = 1; pid <= 5; ++pid) options = Concatenate(options, Executing(std::to_string(pid)));
    EXPECT_THAT(CheckWith(options), Not(HasSubstr(" more)")));
    options = Concatenate(options, Concatenate(Executing("6"), Executing("7")));
    EXPECT_THAT(CheckWith(options), HasSubstr(", and 2 more)"));
}

TEST_F(ProcessesTest, KnowsAMappedFileByItsInodeAndByItsPath) {
    SKIP_WITHOUT_PROC_OF_ITS_OWN();
    const std::string tool = package_.InstalledPath("tool");
    const auto shown = [this](const std::string& maps) {
        return CheckWith(
            Concatenate({"--dir", "/proc/1908"}, File("1908", "maps", "7ff0-7ff1 rw-p 0 00:00 0\n" + maps)));
    };
    const std::string moved = package_.Install("moved", "");

    EXPECT_THAT(shown(Mapped(tool, Device())), HasSubstr("(process 1908)"));
    EXPECT_THAT(shown(Mapped(tool, makedev(0, 99))), HasSubstr("(process 1908)"));
    EXPECT_THAT(shown(Mapped(moved, Device())), Not(HasSubstr("W-TARGET-BUSY")));
    // Another file with the same number elsewhere.
    std::string other = Mapped(tool, makedev(0, 99));
    other.replace(other.find(tool), tool.size(), moved);
    EXPECT_THAT(shown(other), Not(HasSubstr("W-TARGET-BUSY")));
    other.replace(other.find(moved), moved.size(), "/nowhere");
    EXPECT_THAT(shown(other), Not(HasSubstr("W-TARGET-BUSY")));
}

TEST_F(ProcessesTest, FindsARealProcessThatMapsAFile) {
    const std::string path = package_.InstalledPath("tool");
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    void* const mapped = mmap(nullptr, 3, PROT_READ, MAP_PRIVATE, file.get(), 0);
    ASSERT_NE(mapped, MAP_FAILED);
    struct stat status {};
    ASSERT_EQ(fstat(file.get(), &status), 0);

    // Another process sees this one; what it is called depends on who runs it.
    EXPECT_THAT(package_.Run("check").out, HasSubstr("(process " + std::to_string(getpid()) + " "));
    EXPECT_THAT(UsersOf({IdOf(status)}), IsEmpty()) << "this process itself is no other";
    ASSERT_EQ(munmap(mapped, 3), 0);
    EXPECT_THAT(package_.Run("check").out, Not(HasSubstr("W-TARGET-BUSY")));
}

}  // namespace
