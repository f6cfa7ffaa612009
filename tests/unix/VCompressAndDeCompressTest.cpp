#include "VCompressAndDeCompress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "OrdinaryUser.h"
#include "Process.h"
#include "Resources.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"
#include "unix/PipeStream.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

static_assert(std::is_same_v<decltype(&VCompressAndDeCompress::CompressFile), int (*)(const char*)>);
static_assert(std::is_same_v<decltype(&VCompressAndDeCompress::CompressFilePath), int (*)(const char*)>);
static_assert(
    std::is_same_v<decltype(&VCompressAndDeCompress::CompressFileGroup), int (*)(const char*, const char*)>);

LogLine Line(const std::string& function, const std::string& format, const std::string& text) {
    return {"BaseAPI/VFileSys/src/unix/VCompressAndDeCompress", function, 3, format, text};
}

LogLine CommandLine(const std::string& function, const std::string& command) {
    return Line(function, "command %s", "command " + command);
}

LogLine RefusalLine(const std::string& command) {
    return Line("Compress", "not support \";\" or \"|\" or \"&&\" in cmd, cmd = %s\n",
                "not support \";\" or \"|\" or \"&&\" in cmd, cmd = " + command + "\n");
}

class VCompressAndDeCompressArchiveTest : public ResourceTest {
protected:
    static std::vector<LogLine> TakeLog() {
        std::vector<LogLine> lines = LogRecorder::Lines();
        LogRecorder::Clear();
        return lines;
    }
};

// Archive calls that get no shell: the command's output is a given text, and the archive is there or not as
// the test says. The platform calls are kept in their order.
class VCompressAndDeCompressShellTest : public VCompressAndDeCompressArchiveTest {
protected:
    int CompressFile(const std::string& path) { return VCompressAndDeCompress::CompressFile(path.c_str()); }
    int CompressFilePath(const std::string& path) {
        return VCompressAndDeCompress::CompressFilePath(path.c_str());
    }
    int CompressFileGroup(const std::string& files, const std::string& archiveBase) {
        return VCompressAndDeCompress::CompressFileGroup(files.c_str(), archiveBase.c_str());
    }

    std::vector<std::string> TakeSteps() { return std::exchange(steps_, {}); }

    std::string output_ = "a.log\n";
    int commandStatus_ = 0;
    bool hasArchive_ = true;

private:
    FILE* Start(const std::string& command, const std::string& mode) {
        // A call is logged before its command runs.
        steps_.push_back(LogRecorder::Texts().empty() ? "not logged" : "logged");
        steps_.push_back("popen(" + command + ", " + mode + ")");
        FILE* const stream = tmpfile();
        fputs(output_.c_str(), stream);
        rewind(stream);
        return stream;
    }

    std::vector<std::string> steps_;
    const Replaced<decltype(calls::popen)> popen_{
        calls::popen, [this](const char* command, const char* mode) { return Start(command, mode); }};
    const Replaced<decltype(calls::getline)> getline_{
        calls::getline, [this](char** line, size_t* capacity, FILE* stream) {
            const ssize_t length = calls::real::getline(line, capacity, stream);
            steps_.push_back("getline -> " + std::to_string(length));
            return length;
        }};
    const Replaced<decltype(calls::pclose)> pclose_{calls::pclose, [this](FILE* stream) {
                                                        steps_.push_back("pclose");
                                                        fclose(stream);
                                                        return commandStatus_;
                                                    }};
    const Replaced<decltype(calls::stat)> stat_{calls::stat, [this](const char* path, struct stat*) {
                                                    steps_.push_back("stat(" + std::string(path) + ")");
                                                    errno = ENOENT;
                                                    return hasArchive_ ? 0 : -1;
                                                }};
};

std::vector<std::string> StepsOf(const std::string& command, const std::string& archive) {
    return {"logged", "popen(" + command + ", r)", "getline -> 6", "getline -> -1",
            "pclose", "stat(" + archive + ")"};
}

// What is built, logged and run

TEST_F(VCompressAndDeCompressShellTest, LogsTheCommandRunsItDrainsItAndLooksForTheArchive) {
    EXPECT_EQ(CompressFile("/srv/data/a.log"), 0);

    EXPECT_THAT(TakeLog(),
                ElementsAre(CommandLine("CompressFile", "tar -zcvf /srv/data/a.log.tar.gz /srv/data/a.log")));
    EXPECT_EQ(TakeSteps(),
              StepsOf("tar -zcvf /srv/data/a.log.tar.gz /srv/data/a.log", "/srv/data/a.log.tar.gz"));
}

struct PathRow {
    const char* path;
    const char* command;
    const char* archive;
};

TEST_F(VCompressAndDeCompressShellTest, CompressFilePutsTheArchiveBesideThePath) {
    const std::vector<PathRow> rows = {
        {"/tmp/x.log", "tar -zcvf /tmp/x.log.tar.gz /tmp/x.log", "/tmp/x.log.tar.gz"},
        {"x.log", "tar -zcvf x.log.tar.gz x.log", "x.log.tar.gz"},
        {"./sub/../x", "tar -zcvf ./sub/../x.tar.gz ./sub/../x", "./sub/../x.tar.gz"},
        {"/srv/logs/", "tar -zcvf /srv/logs/.tar.gz /srv/logs/", "/srv/logs/.tar.gz"},
        {"/", "tar -zcvf /.tar.gz /", "/.tar.gz"},
        {"", "tar -zcvf .tar.gz ", ".tar.gz"},
        {"a.tar.gz", "tar -zcvf a.tar.gz.tar.gz a.tar.gz", "a.tar.gz.tar.gz"},
    };
    for (const PathRow& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(CompressFile(row.path), 0);
        EXPECT_EQ(TakeSteps(), StepsOf(row.command, row.archive));
        EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", row.command)));
    }
}

TEST_F(VCompressAndDeCompressShellTest, CompressFilePathPutsTheArchiveInsideTheDirectoryUnderItsName) {
    const std::vector<PathRow> rows = {
        {"/srv/logs", "tar -zcvf /srv/logs/logs.tar.gz /srv/logs", "/srv/logs/logs.tar.gz"},
        {"/srv/logs/", "tar -zcvf /srv/logs/logs.tar.gz /srv/logs/", "/srv/logs/logs.tar.gz"},
        {"logs", "tar -zcvf logs/logs.tar.gz logs", "logs/logs.tar.gz"},
        {"logs/", "tar -zcvf logs/logs.tar.gz logs/", "logs/logs.tar.gz"},
        {"/logs", "tar -zcvf /logs/logs.tar.gz /logs", "/logs/logs.tar.gz"},
        {"/logs/", "tar -zcvf /logs/logs.tar.gz /logs/", "/logs/logs.tar.gz"},
        {"//srv//logs", "tar -zcvf //srv//logs/logs.tar.gz //srv//logs", "//srv//logs/logs.tar.gz"},
        {"a/b c/d", "tar -zcvf a/b c/d/d.tar.gz a/b c/d", "a/b c/d/d.tar.gz"},
        {"x", "tar -zcvf x/x.tar.gz x", "x/x.tar.gz"},
        {".", "tar -zcvf ./..tar.gz .", "./..tar.gz"},
        {"..", "tar -zcvf ../...tar.gz ..", "../...tar.gz"},
        {"./", "tar -zcvf ./..tar.gz ./", "./..tar.gz"},
        {"logs\\", "tar -zcvf logs\\/logs\\.tar.gz logs\\", "logs\\/logs\\.tar.gz"},
    };
    for (const PathRow& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(CompressFilePath(row.path), 0);
        EXPECT_EQ(TakeSteps(), StepsOf(row.command, row.archive));
        EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFilePath", row.command)));
    }
}

TEST_F(VCompressAndDeCompressShellTest, CompressFilePathDeliberatelyTakesOffOneSlashOnly) {
    const std::vector<PathRow> rows = {
        {"/", "tar -zcvf /.tar.gz /", "/.tar.gz"},
        {"//", "tar -zcvf //.tar.gz //", "//.tar.gz"},
        {"/srv/logs//", "tar -zcvf /srv/logs//.tar.gz /srv/logs//", "/srv/logs//.tar.gz"},
        {"a//", "tar -zcvf a//.tar.gz a//", "a//.tar.gz"},
        {"a///", "tar -zcvf a///.tar.gz a///", "a///.tar.gz"},
    };
    for (const PathRow& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(CompressFilePath(row.path), 0);
        EXPECT_EQ(TakeSteps(), StepsOf(row.command, row.archive));
        EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFilePath", row.command)));
    }
}

TEST_F(VCompressAndDeCompressShellTest, CompressFileGroupTakesTheSourcesFirstAndTheArchiveSecond) {
    struct Row {
        const char* files;
        const char* archiveBase;
        const char* command;
        const char* archive;
    };
    const std::vector<Row> rows = {
        {"a.log b.log", "/tmp/pack", "tar -zcvf /tmp/pack.tar.gz a.log b.log", "/tmp/pack.tar.gz"},
        {"/srv/a", "pack", "tar -zcvf pack.tar.gz /srv/a", "pack.tar.gz"},
        {" a  b ", "p q", "tar -zcvf p q.tar.gz  a  b ", "p q.tar.gz"},
        {"-C /srv logs/", "dir/", "tar -zcvf dir/.tar.gz -C /srv logs/", "dir/.tar.gz"},
        {"a", "", "tar -zcvf .tar.gz a", ".tar.gz"},
        {"", "pack", "tar -zcvf pack.tar.gz ", "pack.tar.gz"},
        {"", "", "tar -zcvf .tar.gz ", ".tar.gz"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.command);
        EXPECT_EQ(CompressFileGroup(row.files, row.archiveBase), 0);
        EXPECT_EQ(TakeSteps(), StepsOf(row.command, row.archive));
        EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFileGroup", row.command)));
    }
}

TEST_F(VCompressAndDeCompressShellTest, HasNoLimitForTheLengthOfAPath) {
    const std::string path = "/" + std::string(300000, 'p');
    const std::string command = "tar -zcvf " + path + ".tar.gz " + path;

    EXPECT_EQ(CompressFile(path), 0);

    EXPECT_EQ(TakeSteps(), StepsOf(command, path + ".tar.gz"));
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", command)));
}

TEST_F(VCompressAndDeCompressShellTest, CompressFilePathThrowsForAnEmptyPathBeforeAnythingHappens) {
    EXPECT_THROW(CompressFilePath(""), std::out_of_range);

    EXPECT_THAT(TakeSteps(), IsEmpty());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressShellTest, NullPathsThrowBeforeAnythingHappens) {
    EXPECT_THROW(VCompressAndDeCompress::CompressFile(nullptr), std::logic_error);
    EXPECT_THROW(VCompressAndDeCompress::CompressFilePath(nullptr), std::logic_error);
    EXPECT_THROW(VCompressAndDeCompress::CompressFileGroup(nullptr, "pack"), std::logic_error);
    EXPECT_THROW(VCompressAndDeCompress::CompressFileGroup("a.log", nullptr), std::logic_error);
    EXPECT_THROW(VCompressAndDeCompress::CompressFileGroup(nullptr, nullptr), std::logic_error);

    EXPECT_THAT(TakeSteps(), IsEmpty());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

// The guard

TEST_F(VCompressAndDeCompressShellTest, RefusesControlSequencesInEveryFunctionAndPlace) {
    const std::vector<std::string> sequences = {
        ";",  "|",  "&&",  "$",   "`",   "||",    "$(x)",  "`x`",    "${x}",      "&&&", "a && b", ";;",
        "$$", "|&", "\\;", "\\$", "';'", "\";\"", "'a|b'", "\"&&\"", "\"$HOME\"", "'$'", "'`'",    "# ;"};
    for (const std::string& sequence : sequences) {
        for (const std::string& path :
             {sequence, sequence + "end", "begin" + sequence, "/in the " + sequence + " middle"}) {
            SCOPED_TRACE(path);
            const std::string ofFile = "tar -zcvf " + path + ".tar.gz " + path;
            EXPECT_EQ(CompressFile(path), -10000);
            EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", ofFile), RefusalLine(ofFile)));

            const std::string ofPath =
                "tar -zcvf " + path + "/" + path.substr(path.find_last_of('/') + 1) + ".tar.gz " + path;
            EXPECT_EQ(CompressFilePath(path), -10000);
            EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFilePath", ofPath), RefusalLine(ofPath)));

            const std::string ofFiles = "tar -zcvf pack.tar.gz " + path;
            EXPECT_EQ(CompressFileGroup(path, "pack"), -10000);
            EXPECT_THAT(TakeLog(),
                        ElementsAre(CommandLine("CompressFileGroup", ofFiles), RefusalLine(ofFiles)));

            const std::string ofBase = "tar -zcvf " + path + ".tar.gz a.log";
            EXPECT_EQ(CompressFileGroup("a.log", path), -10000);
            EXPECT_THAT(TakeLog(),
                        ElementsAre(CommandLine("CompressFileGroup", ofBase), RefusalLine(ofBase)));
        }
    }
    EXPECT_THAT(TakeSteps(), IsEmpty());
}

TEST_F(VCompressAndDeCompressShellTest, AmpersandsOfTwoNamesNeverMeet) {
    // The suffix or a blank stands between them.
    EXPECT_EQ(CompressFile("&"), 0);
    EXPECT_EQ(CompressFilePath("&"), 0);
    EXPECT_EQ(CompressFileGroup("&", "&"), 0);
    EXPECT_EQ(TakeSteps().size(), 18U);
    EXPECT_EQ(CompressFilePath("a&/&b"), 0);
    EXPECT_EQ(CompressFilePath("a/&&"), -10000);
    EXPECT_EQ(TakeSteps(), StepsOf("tar -zcvf a&/&b/&b.tar.gz a&/&b", "a&/&b/&b.tar.gz"));
}

TEST_F(VCompressAndDeCompressShellTest, LetsEverythingElseThroughAsItIs) {
    const std::vector<std::string> paths = {"a & b",
                                            "a &",
                                            "& &",
                                            "&\n&",
                                            "a < b",
                                            "a > b",
                                            "a >> b",
                                            "a >& b",
                                            "a\nb",
                                            "a\r\nb",
                                            "a\tb",
                                            " ",
                                            "-a",
                                            "--remove-files",
                                            "--checkpoint=1 --checkpoint-action=exec=true",
                                            "-C / etc",
                                            "*",
                                            "a?[b]{c,d}",
                                            "~",
                                            "'",
                                            "\"",
                                            "\\",
                                            "#",
                                            "!",
                                            "(a)",
                                            "a=b",
                                            "host:a",
                                            "%s%n%d%%",
                                            "\x01\x7f\x80\xff",
                                            "\xc3\xa4\xef\xbc\x9b"};
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        const std::string command = "tar -zcvf " + path + ".tar.gz " + path;

        EXPECT_EQ(CompressFile(path), 0);

        EXPECT_EQ(TakeSteps(), StepsOf(command, path + ".tar.gz"));
        EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", command)));
    }
}

TEST_F(VCompressAndDeCompressShellTest, RefusesExactlyFourSingleBytes) {
    std::string refused;
    for (int byte = 1; byte < 256; ++byte) {
        const std::string path = std::string("a") + static_cast<char>(byte);
        if (CompressFile(path) != 0) refused += static_cast<char>(byte);
        LogRecorder::Clear();
    }
    EXPECT_EQ(refused, "$;`|");
}

TEST_F(VCompressAndDeCompressArchiveTest, RefusedCommandsRunNothingThoughTheArchiveIsThere) {
    const ScratchDirectory scratch;
    const WorkingDirectory directory(scratch.Path());
    scratch.Write("pack.tar.gz", "from before");

    EXPECT_EQ(VCompressAndDeCompress::CompressFileGroup("x; touch made", "pack"), -10000);
    EXPECT_EQ(VCompressAndDeCompress::CompressFileGroup("x && touch made", "pack"), -10000);
    EXPECT_EQ(VCompressAndDeCompress::CompressFileGroup("x || touch made", "pack"), -10000);
    EXPECT_EQ(VCompressAndDeCompress::CompressFileGroup("$(touch made)", "pack"), -10000);
    EXPECT_EQ(VCompressAndDeCompress::CompressFileGroup("`touch made`", "pack"), -10000);

    EXPECT_THAT(scratch.List(), ElementsAre("pack.tar.gz"));
    EXPECT_EQ(scratch.Read("pack.tar.gz"), "from before");
    EXPECT_EQ(TakeLog().size(), 10U);
}

// Running the command

TEST_F(VCompressAndDeCompressShellTest, HowTheCommandEndedIsDeliberatelyIgnored) {
    // The statuses 0, 1 and 2, a death by a signal, and a pclose that fails.
    for (const int status : {0, 1 << 8, 2 << 8, SIGKILL, -1}) {
        SCOPED_TRACE(status);
        commandStatus_ = status;
        hasArchive_ = true;
        EXPECT_EQ(CompressFile("/srv/a"), 0);
        EXPECT_EQ(TakeSteps(), StepsOf("tar -zcvf /srv/a.tar.gz /srv/a", "/srv/a.tar.gz"));
        hasArchive_ = false;
        EXPECT_EQ(CompressFile("/srv/a"), -10000);
        EXPECT_EQ(TakeSteps(), StepsOf("tar -zcvf /srv/a.tar.gz /srv/a", "/srv/a.tar.gz"));
    }
    for (const LogLine& line : TakeLog()) {
        EXPECT_EQ(line, CommandLine("CompressFile", "tar -zcvf /srv/a.tar.gz /srv/a"));
    }
}

TEST_F(VCompressAndDeCompressShellTest, FailsQuietlyInEveryFunctionWhenThereIsNoArchive) {
    hasArchive_ = false;

    EXPECT_EQ(CompressFile("/srv/a"), -10000);
    EXPECT_EQ(CompressFilePath("/srv/a"), -10000);
    EXPECT_EQ(CompressFileGroup("/srv/a", "/srv/b"), -10000);

    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", "tar -zcvf /srv/a.tar.gz /srv/a"),
                                       CommandLine("CompressFilePath", "tar -zcvf /srv/a/a.tar.gz /srv/a"),
                                       CommandLine("CompressFileGroup", "tar -zcvf /srv/b.tar.gz /srv/a")));
}

TEST_F(VCompressAndDeCompressShellTest, LeavesNothingBehindOnAnyPath) {
    ExpectNoLeak([&] {
        EXPECT_EQ(CompressFile("/srv/some long path that needs the heap"), 0);
        TakeSteps();
    });
    hasArchive_ = false;
    ExpectNoLeak([&] {
        EXPECT_EQ(CompressFilePath("/srv/some long path that needs the heap"), -10000);
        TakeSteps();
    });
    output_ = "";
    ExpectNoLeak([&] {
        EXPECT_EQ(CompressFileGroup("some long source that needs the heap", "/srv/pack"), -10000);
        TakeSteps();
    });
    output_ = std::string(100000, 'x') + "\n" + std::string(200000, 'x');
    ExpectNoLeak([&] {
        EXPECT_EQ(CompressFile("/srv/a"), -10000);
        TakeSteps();
    });
    ExpectNoLeak([&] { EXPECT_EQ(CompressFile("/srv/a;"), -10000); });
    ExpectNoLeak([&] { EXPECT_THROW(CompressFilePath(""), std::out_of_range); });
}

TEST_F(VCompressAndDeCompressShellTest, ReadsLinesOfAnyKindToTheEnd) {
    output_ = "first\n\n" + std::string(3000000, 'x') + "\n\xff\xfe\nlast without an end";

    EXPECT_EQ(CompressFile("/srv/a"), 0);

    EXPECT_THAT(TakeSteps(), ElementsAre("logged", "popen(tar -zcvf /srv/a.tar.gz /srv/a, r)", "getline -> 6",
                                         "getline -> 1", "getline -> 3000001", "getline -> 3",
                                         "getline -> 19", "getline -> -1", "pclose", "stat(/srv/a.tar.gz)"));
}

TEST_F(VCompressAndDeCompressShellTest, ReadsNothingFromASilentCommand) {
    output_ = "";

    EXPECT_EQ(CompressFile("/srv/a"), 0);

    EXPECT_THAT(TakeSteps(), ElementsAre("logged", "popen(tar -zcvf /srv/a.tar.gz /srv/a, r)",
                                         "getline -> -1", "pclose", "stat(/srv/a.tar.gz)"));
}

TEST_F(VCompressAndDeCompressShellTest, AReadErrorEndsTheReadingAndNothingElse) {
    const Replaced replaced(calls::getline, [](char**, size_t*, FILE*) -> ssize_t {
        errno = EIO;
        return -1;
    });

    EXPECT_EQ(CompressFile("/srv/a"), 0);
    EXPECT_THAT(TakeSteps(), ElementsAre("logged", "popen(tar -zcvf /srv/a.tar.gz /srv/a, r)", "pclose",
                                         "stat(/srv/a.tar.gz)"));

    hasArchive_ = false;
    EXPECT_EQ(CompressFile("/srv/a"), -10000);
}

TEST_F(VCompressAndDeCompressShellTest, FailsQuietlyWhenTheCommandCannotBeStarted) {
    int starts = 0;
    const Replaced replaced(calls::popen, [&](const char*, const char*) -> FILE* {
        ++starts;
        errno = EMFILE;
        return nullptr;
    });

    EXPECT_EQ(CompressFile("/srv/a"), -10000);
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", "tar -zcvf /srv/a.tar.gz /srv/a")));
    EXPECT_EQ(CompressFilePath("/srv/a"), -10000);
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFilePath", "tar -zcvf /srv/a/a.tar.gz /srv/a")));
    EXPECT_EQ(CompressFileGroup("/srv/a", "b"), -10000);
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFileGroup", "tar -zcvf b.tar.gz /srv/a")));
    ExpectNoLeak([&] { EXPECT_EQ(CompressFile("/srv/a"), -10000); });

    EXPECT_EQ(starts, 5);
    EXPECT_THAT(TakeSteps(), IsEmpty()) << "neither read nor closed nor looked for";
}

// The stream of a command

class PipeStreamTest : public ResourceTest {
protected:
    int closes_ = 0;

private:
    const Replaced<decltype(calls::pclose)> pclose_{calls::pclose, [this](FILE* stream) {
                                                        ++closes_;
                                                        return calls::real::pclose(stream);
                                                    }};
};

TEST_F(PipeStreamTest, CloseWaitsOnceAndReturnsTheStatus) {
    {
        PipeStream command("exit 3");
        ASSERT_TRUE(command);
        EXPECT_EQ(command.Close(), 3 << 8);
        EXPECT_FALSE(command);
    }
    EXPECT_EQ(closes_, 1);
}

TEST_F(PipeStreamTest, WaitsForTheCommandAtTheLatestWhenItIsDestroyed) {
    { const PipeStream command("true"); }
    EXPECT_EQ(closes_, 1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child that nobody waited for";
}

TEST_F(PipeStreamTest, HasNothingToCloseWhenTheCommandDidNotStart) {
    const Replaced replaced(calls::popen, [](const char*, const char*) -> FILE* { return nullptr; });
    {
        const PipeStream command("true");
        EXPECT_FALSE(command);
        EXPECT_EQ(command.Get(), nullptr);
    }
    EXPECT_EQ(closes_, 0);
}

// With the shell and tar

// Archive calls that run for real, in a scratch directory that is the working directory too.
class VCompressAndDeCompressTarTest : public VCompressAndDeCompressArchiveTest {
protected:
    // Runs the call and keeps what tar says on the standard error.
    int Run(const std::function<int()>& call) {
        testing::internal::CaptureStderr();
        const int result = call();
        errorText_ = testing::internal::GetCapturedStderr();
        return result;
    }
    int CompressFile(const std::string& path) {
        return Run([&] { return VCompressAndDeCompress::CompressFile(path.c_str()); });
    }
    int CompressFilePath(const std::string& path) {
        return Run([&] { return VCompressAndDeCompress::CompressFilePath(path.c_str()); });
    }
    int CompressFileGroup(const std::string& files, const std::string& archiveBase) {
        return Run(
            [&] { return VCompressAndDeCompress::CompressFileGroup(files.c_str(), archiveBase.c_str()); });
    }

    // The archive may be named as seen from the scratch directory.
    std::vector<std::string> Members(const std::string& archive) {
        const ProcessResult result = RunProcess({"tar", "-tzf", archive});
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        std::vector<std::string> members;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) members.push_back(line);
        return members;
    }
    std::string ContentOfMember(const std::string& archive, const std::string& member) {
        const ProcessResult result = RunProcess({"tar", "-xzOf", archive, member});
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result.out;
    }
    // An absolute path as tar names it.
    std::string MemberName(const std::string& path) { return scratch_.Path(path).substr(1); }

    ScratchDirectory scratch_;
    std::string errorText_;

private:
    const WorkingDirectory directory_{scratch_.Path()};
};

TEST_F(VCompressAndDeCompressTarTest, CompressFilePacksAFileBesideIt) {
    const std::string path = scratch_.Write("sub/a.log", "content of a");

    EXPECT_EQ(CompressFile(path), 0);

    EXPECT_THAT(scratch_.List("sub"), ElementsAre("a.log", "a.log.tar.gz"));
    EXPECT_THAT(Members("sub/a.log.tar.gz"), ElementsAre(MemberName("sub/a.log")));
    EXPECT_EQ(ContentOfMember("sub/a.log.tar.gz", MemberName("sub/a.log")), "content of a");
    EXPECT_EQ(scratch_.Read("sub/a.log.tar.gz").substr(0, 2), "\x1f\x8b");
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", "tar -zcvf " + path + ".tar.gz " + path)));
}

TEST_F(VCompressAndDeCompressTarTest, CompressFilePacksADirectoryBesideIt) {
    scratch_.Write("logs/a.log", "a");
    scratch_.Write("logs/sub/b.log", "b");

    EXPECT_EQ(CompressFile("logs"), 0);

    EXPECT_THAT(scratch_.List(), ElementsAre("logs", "logs.tar.gz"));
    EXPECT_THAT(Members("logs.tar.gz"),
                UnorderedElementsAre("logs/", "logs/a.log", "logs/sub/", "logs/sub/b.log"));
    EXPECT_EQ(errorText_, "");
}

TEST_F(VCompressAndDeCompressTarTest, RelativePathsBelongToTheWorkingDirectoryOfTheCall) {
    scratch_.Write("sub/a.log", "a in sub");
    scratch_.Write("a.log", "a above");

    {
        const WorkingDirectory directory(scratch_.Path("sub"));
        EXPECT_EQ(CompressFile("a.log"), 0);
        EXPECT_EQ(std::filesystem::current_path(), scratch_.Path("sub"));
    }

    EXPECT_FALSE(scratch_.Has("a.log.tar.gz"));
    EXPECT_THAT(Members("sub/a.log.tar.gz"), ElementsAre("a.log"));
    EXPECT_EQ(ContentOfMember("sub/a.log.tar.gz", "a.log"), "a in sub");
}

TEST_F(VCompressAndDeCompressTarTest, CompressFilePathPacksADirectoryAroundItsOwnArchive) {
    for (const std::string ending : {"", "/"}) {
        SCOPED_TRACE("ending \"" + ending + "\"");
        const ScratchDirectory scratch;
        scratch.Write("logs/a.log", "content of a");
        scratch.Write("logs/sub/b.log", "content of b");
        const std::string path = scratch.Path("logs");
        const std::string archive = path + "/logs.tar.gz";

        EXPECT_EQ(CompressFilePath(path + ending), 0);

        EXPECT_THAT(scratch.List(), ElementsAre("logs"));
        EXPECT_THAT(scratch.List("logs"), ElementsAre("a.log", "logs.tar.gz", "sub"));
        EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFilePath",
                                                       "tar -zcvf " + archive + " " + path + ending)));
        // tar packs what there is of its own archive too, or is done before there is any.
        std::vector<std::string> members = Members(archive);
        const std::string inside = path.substr(1);
        members.erase(std::remove(members.begin(), members.end(), inside + "/logs.tar.gz"), members.end());
        EXPECT_THAT(members, UnorderedElementsAre(inside + "/", inside + "/a.log", inside + "/sub/",
                                                  inside + "/sub/b.log"));
        EXPECT_EQ(ContentOfMember(archive, inside + "/sub/b.log"), "content of b");
    }
}

TEST_F(VCompressAndDeCompressTarTest, CompressFilePathPacksARelativeDirectory) {
    scratch_.Write("logs/a.log", "content of a");

    EXPECT_EQ(CompressFilePath("logs"), 0);

    EXPECT_THAT(scratch_.List("logs"), ElementsAre("a.log", "logs.tar.gz"));
    EXPECT_EQ(ContentOfMember("logs/logs.tar.gz", "logs/a.log"), "content of a");
}

TEST_F(VCompressAndDeCompressTarTest, CompressFilePathFailsForAFile) {
    const std::string path = scratch_.Write("a.log", "a");

    EXPECT_EQ(CompressFilePath(path), -10000);

    EXPECT_THAT(scratch_.List(), ElementsAre("a.log"));
    EXPECT_EQ(scratch_.Read("a.log"), "a");
    EXPECT_THAT(TakeLog(),
                ElementsAre(CommandLine("CompressFilePath", "tar -zcvf " + path + "/a.log.tar.gz " + path)));
}

TEST_F(VCompressAndDeCompressTarTest, CompressFileGroupPacksSeveralSourcesInTheirOrder) {
    scratch_.Write("b.log", "content of b");
    scratch_.Write("a.log", "content of a");
    scratch_.Write("dir/c.log", "content of c");
    scratch_.MakeDirectory("out");
    const std::string base = scratch_.Path("out/pack");

    EXPECT_EQ(CompressFileGroup("b.log a.log dir/c.log", base), 0);

    EXPECT_THAT(scratch_.List("out"), ElementsAre("pack.tar.gz"));
    EXPECT_THAT(Members("out/pack.tar.gz"), ElementsAre("b.log", "a.log", "dir/c.log"));
    EXPECT_EQ(ContentOfMember("out/pack.tar.gz", "a.log"), "content of a");
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFileGroup",
                                                   "tar -zcvf " + base + ".tar.gz b.log a.log dir/c.log")));
}

TEST_F(VCompressAndDeCompressTarTest, CompressFileGroupPacksASingleSource) {
    scratch_.Write("a.log", "content of a");

    EXPECT_EQ(CompressFileGroup("a.log", "pack"), 0);

    EXPECT_THAT(Members("pack.tar.gz"), ElementsAre("a.log"));
}

TEST_F(VCompressAndDeCompressTarTest, PathsReachTheShellUnquoted) {
    scratch_.Write("a.log", "a");
    scratch_.Write("b.log", "b");
    scratch_.Write("with blank", "w");

    EXPECT_EQ(CompressFileGroup("*.log", "stars"), 0);
    EXPECT_THAT(Members("stars.tar.gz"), ElementsAre("a.log", "b.log"));

    EXPECT_EQ(CompressFileGroup("a.log > listing", "redirected"), 0);
    EXPECT_EQ(scratch_.Read("listing"), "a.log\n");

    EXPECT_EQ(CompressFileGroup("a.log\ntouch made", "newline"), 0);
    EXPECT_TRUE(scratch_.Has("made"));

    EXPECT_EQ(CompressFileGroup("'with blank'", "quoted"), 0);
    EXPECT_THAT(Members("quoted.tar.gz"), ElementsAre("with blank"));

    // A blank in the path splits it in two: neither half is there, and the archive has the first one's name.
    EXPECT_EQ(CompressFile("with blank"), -10000);
    EXPECT_FALSE(scratch_.Has("with blank.tar.gz"));
}

TEST_F(VCompressAndDeCompressTarTest, AnythingOfTheArchivesNameIsDeliberatelyEnoughWhenTarFails) {
    // tar can't write its archive there, root's no more than another user's.
    scratch_.MakeDirectory("gone.tar.gz");

    EXPECT_EQ(CompressFile("gone"), 0);

    EXPECT_THAT(scratch_.List("gone.tar.gz"), IsEmpty());
    EXPECT_THAT(errorText_, HasSubstr("tar"));
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", "tar -zcvf gone.tar.gz gone")));
}

TEST_F(VCompressAndDeCompressTarTest, AnArchiveFromBeforeIsDeliberatelyEnoughWhenTarDoesNotRun) {
    scratch_.Write("gone.tar.gz", "from before");

    EXPECT_EQ(CompressFileGroup("--no-such-option", "gone"), 0);

    EXPECT_EQ(scratch_.Read("gone.tar.gz"), "from before");
}

TEST_F(VCompressAndDeCompressTarTest, AMissingSourceIsNoFailureSinceTarLeavesAnArchive) {
    EXPECT_EQ(CompressFile("gone"), 0);

    EXPECT_THAT(Members("gone.tar.gz"), IsEmpty());
    EXPECT_THAT(errorText_, HasSubstr("gone"));
}

TEST_F(VCompressAndDeCompressTarTest, FailsWhenTarCanMakeNoArchive) {
    scratch_.Write("a.log", "a");

    EXPECT_EQ(CompressFile("no/directory/a.log"), -10000);
    EXPECT_EQ(CompressFilePath("no/directory"), -10000);
    EXPECT_EQ(CompressFileGroup("a.log", "no/directory/pack"), -10000);

    EXPECT_THAT(scratch_.List(), ElementsAre("a.log"));
    EXPECT_EQ(TakeLog().size(), 3U);
}

TEST_F(VCompressAndDeCompressTarTest, ALinkThatLeadsNowhereIsNoArchive) {
    scratch_.Write("a.log", "a");
    scratch_.Link("a.log.tar.gz", "no/directory/archive");

    EXPECT_EQ(CompressFile("a.log"), -10000);
}

TEST_F(VCompressAndDeCompressTarTest, AnArchiveThatIsOutOfSightIsNone) {
    scratch_.Write("closed/pack.tar.gz", "from before");
    ASSERT_EQ(chmod(scratch_.Path("closed").c_str(), 0), 0);
    {
        const OrdinaryUser ordinaryUser(scratch_.Path());
        EXPECT_EQ(CompressFileGroup("a.log", "closed/pack"), -10000);
    }
    ASSERT_EQ(chmod(scratch_.Path("closed").c_str(), 0755), 0);
}

TEST_F(VCompressAndDeCompressTarTest, ACommandThatPrintsMoreThanAPipeHoldsRunsToItsEnd) {
    constexpr int files = 2000;
    std::vector<std::string> expected = {"many/"};
    for (int file = 0; file < files; ++file) {
        const std::string name = "many/" + std::string(200, 'n') + std::to_string(file);
        scratch_.Write(name, "");
        expected.push_back(name);
    }

    EXPECT_EQ(CompressFile("many"), 0);

    std::vector<std::string> members = Members("many.tar.gz");
    std::sort(members.begin(), members.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(members == expected);
    EXPECT_EQ(errorText_, "");
}

TEST_F(VCompressAndDeCompressTarTest, ACommandThatPrintsOneHugeLineRunsToItsEnd) {
    int status = -1;
    const Replaced popenReplaced(calls::popen, [](const char*, const char* mode) {
        return calls::real::popen("head -c 2000000 /dev/zero; echo status $? >&2", mode);
    });
    const Replaced pcloseReplaced(calls::pclose, [&](FILE* stream) {
        status = calls::real::pclose(stream);
        return status;
    });
    scratch_.Write("a.tar.gz", "");

    EXPECT_EQ(CompressFile("a"), 0);

    EXPECT_EQ(errorText_, "status 0\n");
    EXPECT_EQ(status, 0);
}

TEST_F(VCompressAndDeCompressTarTest, ClosesTheCommandOnceOnEveryWayOut) {
    int closes = 0;
    const Replaced replaced(calls::pclose, [&](FILE* stream) {
        ++closes;
        return calls::real::pclose(stream);
    });
    scratch_.Write("a.log", "a");

    EXPECT_EQ(CompressFile("a.log"), 0);
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(CompressFilePath("a.log"), -10000);
    EXPECT_EQ(closes, 2);
    EXPECT_EQ(CompressFileGroup("a.log", "no/directory/pack"), -10000);
    EXPECT_EQ(closes, 3);
    EXPECT_EQ(CompressFile("a;"), -10000);
    EXPECT_EQ(closes, 3);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child that nobody waited for";
}

TEST_F(VCompressAndDeCompressTarTest, FailsWhenThereAreNoDescriptorsForAPipe) {
    scratch_.Write("a.log", "a");
    scratch_.Write("a.log.tar.gz", "from before");
    rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit none = {0, old.rlim_max};

    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = VCompressAndDeCompress::CompressFile("a.log");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);

    EXPECT_EQ(result, -10000);
    EXPECT_EQ(scratch_.Read("a.log.tar.gz"), "from before");
    EXPECT_THAT(TakeLog(), ElementsAre(CommandLine("CompressFile", "tar -zcvf a.log.tar.gz a.log")));
}

TEST_F(VCompressAndDeCompressTarTest, WorksInAProgramThatIgnoresTheEndOfItsChildren) {
    scratch_.Write("a.log", "a");
    const auto old = std::signal(SIGCHLD, SIG_IGN);

    const int result = CompressFile("a.log");

    std::signal(SIGCHLD, old);
    EXPECT_EQ(result, 0);
    EXPECT_THAT(Members("a.log.tar.gz"), ElementsAre("a.log"));
}

TEST_F(VCompressAndDeCompressTarTest, LeavesNothingBehind) {
    scratch_.Write("a.log", "a");
    testing::internal::CaptureStderr();
    ExpectNoLeak([] { EXPECT_EQ(VCompressAndDeCompress::CompressFile("a.log"), 0); });
    ExpectNoLeak([] { EXPECT_EQ(VCompressAndDeCompress::CompressFilePath("a.log"), -10000); });
    testing::internal::GetCapturedStderr();
}

TEST_F(VCompressAndDeCompressTarTest, EightThreadsMayPackAtOnce) {
    constexpr std::size_t threads = 8;
    std::vector<int> results(threads, -1);
    std::vector<std::thread> workers;
    for (std::size_t worker = 0; worker < threads; ++worker) {
        const std::string name = "dir" + std::to_string(worker);
        scratch_.Write(name + "/a.log", name);
        workers.emplace_back([name, &result = results[worker]] {
            result = VCompressAndDeCompress::CompressFile(name.c_str());
        });
    }
    for (std::thread& worker : workers) worker.join();

    EXPECT_EQ(results, std::vector<int>(threads, 0));
    for (std::size_t worker = 0; worker < threads; ++worker) {
        const std::string name = "dir" + std::to_string(worker);
        EXPECT_THAT(Members(name + ".tar.gz"), ElementsAre(name + "/", name + "/a.log"));
    }
    EXPECT_EQ(TakeLog().size(), threads);
}

}  // namespace
