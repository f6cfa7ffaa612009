// Every example program does what its first lines promise.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Process.h"
#include "ScratchDirectory.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

ProcessResult RunExample(const std::string& example, const std::vector<std::string>& arguments) {
    return RunProcess(Concatenate({EXAMPLES + example}, arguments));
}

class ExamplesTest : public testing::Test {
protected:
    ScratchDirectory scratch_;
};

TEST_F(ExamplesTest, EachTellsItsUsage) {
    for (const char* const example : {"CanonicalPath", "PrepareDirectory", "SafeCopy", "CompressBuffer",
                                      "BackupConfiguration", "WaitForChange", "Tour"}) {
        const ProcessResult result = RunExample(example, {});
        EXPECT_EQ(result.exitStatus, 2) << example;
        EXPECT_THAT(result.err, StartsWith("usage: ")) << example;
    }
}

TEST_F(ExamplesTest, CanonicalPathKeepsNamesBelowTheirBase) {
    EXPECT_EQ(RunExample("CanonicalPath", {"/srv/files", "reports/../summary.txt"}).out,
              "/srv/files/summary.txt\n");
    EXPECT_EQ(RunExample("CanonicalPath", {"/", "etc"}).out, "/etc\n");
    for (const char* const name : {"../../etc/passwd", "..", "a/..", "../files2/x", ".", ""}) {
        EXPECT_EQ(RunExample("CanonicalPath", {"/srv/files", name}).exitStatus, 1) << name;
    }
    EXPECT_EQ(RunExample("CanonicalPath", {"/srv", std::string(5000, 'a')}).exitStatus, 1);
}

TEST_F(ExamplesTest, PrepareDirectoryMakesADirectoryForAUser) {
    const passwd* const self = getpwuid(geteuid());
    if (self == nullptr) GTEST_SKIP() << "this user has no name";
    const std::string directory = scratch_.Path("a/b/c");

    const ProcessResult result = RunExample("PrepareDirectory", {directory, self->pw_name});

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    struct stat status;
    ASSERT_EQ(stat(directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, geteuid());
    EXPECT_EQ(RunExample("PrepareDirectory", {directory, "no-such-user"}).exitStatus, 1);
}

TEST_F(ExamplesTest, SafeCopyReplacesAFileWithItsMode) {
    const std::string source = scratch_.Write("new", "new content");
    const std::string destination = scratch_.Write("file", "old");
    ASSERT_EQ(chmod(source.c_str(), 0751), 0);

    EXPECT_EQ(RunExample("SafeCopy", {source, destination}).out, destination + ": 11 bytes\n");

    EXPECT_EQ(scratch_.Read("file"), "new content");
    struct stat status;
    ASSERT_EQ(stat(destination.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0751U);
    EXPECT_EQ(scratch_.List(), (std::vector<std::string>{"file", "new"}));
}

TEST_F(ExamplesTest, SafeCopyLeavesTheOldFileWhenItFails) {
    const std::string destination = scratch_.Write("file", "old");

    EXPECT_EQ(RunExample("SafeCopy", {scratch_.Path("missing"), destination}).exitStatus, 1);

    EXPECT_EQ(scratch_.Read("file"), "old");
    EXPECT_EQ(scratch_.List(), (std::vector<std::string>{"file"}));
}

TEST_F(ExamplesTest, SafeCopyTouchesNoOtherFile) {
    const std::string source = scratch_.Write("file.new", "content");
    const std::string destination = scratch_.Path("file");

    EXPECT_EQ(RunExample("SafeCopy", {source, destination}).exitStatus, 0);
    EXPECT_EQ(RunExample("SafeCopy", {scratch_.Path("missing"), destination}).exitStatus, 1);
    EXPECT_EQ(RunExample("SafeCopy", {source, source}).exitStatus, 0);

    EXPECT_EQ(scratch_.Read("file"), "content");
    EXPECT_EQ(scratch_.Read("file.new"), "content");
}

TEST_F(ExamplesTest, CompressBufferComesBack) {
    const ProcessResult result = RunExample("CompressBuffer", {"some text"});

    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_THAT(result.out, StartsWith("10 bytes with the NUL make "));
    EXPECT_THAT(result.out, HasSubstr("and back: some text\n"));
}

TEST_F(ExamplesTest, BackupConfigurationMakesAnArchiveThatCanBeRead) {
    scratch_.Write("etc/app/a.conf", "a");
    const std::string archiveBase = scratch_.Path("backup");

    const ProcessResult result = RunExample("BackupConfiguration", {scratch_.Path("etc/app"), archiveBase});

    EXPECT_EQ(result.out, archiveBase + ".tar.gz\n") << result.err;
    const ProcessResult list = RunProcess({"tar", "-tzf", archiveBase + ".tar.gz"});
    EXPECT_THAT(list.out, HasSubstr("etc/app/a.conf\n"));
}

TEST_F(ExamplesTest, BackupConfigurationKeepsTheOldArchiveWhenItFails) {
    scratch_.Write("etc/app/a.conf", "a");
    scratch_.Write("backup.tar.gz", "old");

    // No room for the new archive: its name would be too long.
    EXPECT_EQ(
        RunExample("BackupConfiguration", {scratch_.Path("etc/app"), scratch_.Path(std::string(250, 'b'))})
            .exitStatus,
        1);
    EXPECT_EQ(
        RunExample("BackupConfiguration", {scratch_.Path("etc/no"), scratch_.Path("backup")}).exitStatus, 1);

    EXPECT_EQ(scratch_.Read("backup.tar.gz"), "old");
}

TEST_F(ExamplesTest, BackupConfigurationHandsNoOddPathToTheShell) {
    const std::string marker = scratch_.Path("marker");
    for (const std::string& odd :
         {"/etc/app & touch " + marker + " &", std::string("/etc/a b"), std::string("/no/such/dir")}) {
        EXPECT_EQ(RunExample("BackupConfiguration", {odd, scratch_.Path("backup")}).exitStatus, 1) << odd;
    }
    EXPECT_FALSE(scratch_.Has("marker"));
}

TEST_F(ExamplesTest, WaitForChangeTellsOfAWriteAndEnds) {
    const std::string file = scratch_.Write("file", "");
    // Written to until it is told; then Enter comes through the pipe.
    const std::string script =
        "cd " + scratch_.Path() +
        "; mkfifo enter; " EXAMPLES
        "WaitForChange file < enter > out & exec 3> enter; "
        "while ! grep -q 'something happened' out; do echo x >> file; done; echo >&3; wait $!";

    const ProcessResult result = RunProcess({"timeout", "60", "sh", "-c", script});

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_THAT(scratch_.Read("out"), StartsWith("watching file; Enter ends it\n"));
    EXPECT_THAT(scratch_.Read("out"), testing::EndsWith("done\n"));
}

TEST_F(ExamplesTest, WaitForChangeTellsWhenTheFileIsGone) {
    scratch_.Write("file", "");
    const std::string script =
        "cd " + scratch_.Path() +
        "; mkfifo enter; " EXAMPLES
        "WaitForChange file < enter > out & exec 3> enter; "
        "until [ \"$(cat /proc/$!/fdinfo/* 2> /dev/null | grep -c 'inotify wd:')\" -ge 2 ]; do :; done; "
        "rm file; until grep -q 'any more' out; do :; done; echo >&3; wait $!";

    const ProcessResult result = RunProcess({"timeout", "60", "sh", "-c", script});

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_THAT(scratch_.Read("out"), HasSubstr("file can't be watched any more\n"));
}

TEST_F(ExamplesTest, FirewallServiceRepairsUntilASignalEndsIt) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    const std::vector<std::string> inside = PrivateNamespace(
        Concatenate(WithHelperTool(scratch_, "echo repaired $1\n"), {"--tmpfs", "/var/log"}));
    const std::string script = EXAMPLES
        "FirewallService & "
        "log=/var/log/firewall-service/firewall.log; until grep -qs 'FixFirewall end' $log; do :; done; "
        "kill $!; wait $!; status=$?; cat $log; exit $status";

    const ProcessResult result = RunProcess(Concatenate(inside, {"timeout", "60", "sh", "-c", script}));

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("repairing every five minutes\nended\n"));
    EXPECT_THAT(result.out, HasSubstr("[ProcessCmd] repaired Firewall ("));
    EXPECT_THAT(result.out, HasSubstr("[FixFirewallStop] FixFirewallStop ("));
}

TEST_F(ExamplesTest, TourShowsEveryClassWithItsLogLine) {
    const ProcessResult result = RunExample("Tour", {scratch_.Path()});

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    for (const char* const shown :
         {"VPath: ", "VDir: ", "VFile: ", "VCompressAndDeCompress: ", "VMonitorFiles: "}) {
        EXPECT_THAT(result.out, HasSubstr(shown));
    }
    for (const char* const logged :
         {"Can't get user name id, errno: ", "Not Exist:srcFilename=", "gzip compress success.",
          "command tar -zcvf ", "not support \";\"", "close failed error = "}) {
        EXPECT_THAT(result.err, HasSubstr(logged));
    }
    EXPECT_THAT(scratch_.Read("tour.log"), HasSubstr("close failed error = ")) << "in the file as well";
}

}  // namespace
