// Compression, archives, monitoring and the firewall fixer, with each of their calls failing in turn.
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>

#include "FaultTexts.h"
#include "LogRecorder.h"
#include "Process.h"
#include "Sweep.h"
#include "SystemCalls.h"
#include "VCompressAndDeCompress.h"
#include "VFixFirewall.h"
#include "VMonitorFiles.h"

namespace {

namespace fs = std::filesystem;

const char kBadAlloc[] = "St9bad_alloc";
// zlib's number for "not enough memory".
const char kZlibOutOfMemory[] = "-4";

TEST(ServiceFaultsTest, CompressString) {
    Sweep sweep("VCompressAndDeCompress::CompressString",
                {Nothing, [] {
                     char compressed[100];
                     int length = sizeof(compressed);
                     return Text(VCompressAndDeCompress::CompressString("text", 4, compressed, &length));
                 }});
    const std::vector<std::string> refused = {"CompressString 1 compress str error, srcLen=5,dstLen=100"};
    sweep.Expect("compress", "-10000").Log(refused);
    // What compress is made of itself: it tells the length that it reached.
    for (const char* const call : {"deflate", "deflateInit2_", "malloc"}) {
        sweep.Expect(call, "-10000").Log({"CompressString 1 compress str error, srcLen=5,dstLen=0"});
    }
    sweep.Run("compress 1 deflate 1 deflateEnd 1 deflateInit2_ 1 malloc 5");
}

TEST(ServiceFaultsTest, GzipCompress) {
    Sweep sweep("VCompressAndDeCompress::GzipCompress",
                {Nothing, [] {
                     char compressed[100];
                     return Text(VCompressAndDeCompress::GzipCompress("text", 4, compressed, 100));
                 }});
    for (const char* const call : {"deflateInit2_", "deflate", "deflateEnd", "malloc"}) {
        sweep.Expect(call, "-10000");
    }
    sweep.Run("deflate 2 deflateEnd 1 deflateInit2_ 1 malloc 5");
}

TEST(ServiceFaultsTest, GzipDecompress) {
    static char member[100];
    static int memberLength = 0;
    Sweep sweep("VCompressAndDeCompress::GzipDecompress",
                {[] { memberLength = VCompressAndDeCompress::GzipCompress("text", 4, member, 100); },
                 [] {
                     char text[10];
                     return Text(VCompressAndDeCompress::GzipDecompress(member, memberLength, text, 10));
                 }});
    for (const char* const call : {"inflateInit2_", "inflate", "malloc"}) {
        sweep.Expect(call, kZlibOutOfMemory);
    }
    sweep.Run("inflate 1 inflateEnd 1 inflateInit2_ 1 malloc 1");
}

// The archive's own bytes hold times; that it is there is what counts.
void ExpectArchive(const Outcome& outcome, const std::string& archive, bool isThere) {
    EXPECT_EQ(outcome.files.find(archive) != std::string::npos, isThere) << outcome.files;
}

// `lines`: what tar says at least, and the end of it.
void SweepArchive(const std::string& function, const Operation& operation, const std::string& command,
                  const std::string& archive, long lines) {
    Sweep sweep("VCompressAndDeCompress::" + function, operation);
    const std::vector<std::string> log = {function + " 3 command " + command};
    sweep.CountVaries("getline");  // tar may name the archive itself, or not yet find it
    const std::string floors = "malloc 5 pclose 1 popen 1 stat 1 getline " + std::to_string(lines);
    sweep.Run(floors, [&](const Fault& fault, const Outcome& outcome, const Outcome& normal) {
        EXPECT_EQ(normal.result, "0");
        const bool isRun = fault.call != "popen" && fault.call != "malloc";
        if (isRun) {
            ExpectArchive(outcome, archive, true);
        }
        if (outcome.result == kBadAlloc) {
            EXPECT_EQ(fault.call, "malloc");
            return;
        }
        EXPECT_EQ(outcome.log, log);
        if (fault.call == "popen" || fault.call == "stat") {
            EXPECT_EQ(outcome.result, "-10000");
        } else if (isRun) {
            // The archive's existence decides, not how the command ended or what was read of its output.
            EXPECT_EQ(outcome.result, "0");
        }
    });
}

TEST(ServiceFaultsTest, CompressFile) {
    SweepArchive(
        "CompressFile",
        {[] { Write("file", "x"); }, [] { return Text(VCompressAndDeCompress::CompressFile("file")); }},
        "tar -zcvf file.tar.gz file", "file.tar.gz", 2);
}

TEST(ServiceFaultsTest, CompressFilePath) {
    SweepArchive("CompressFilePath",
                 {[] {
                      fs::create_directory("d");
                      Write("d/file", "x");
                  },
                  [] { return Text(VCompressAndDeCompress::CompressFilePath("d")); }},
                 "tar -zcvf d/d.tar.gz d", "d/d.tar.gz", 3);
}

TEST(ServiceFaultsTest, CompressFileGroup) {
    SweepArchive("CompressFileGroup",
                 {[] {
                      Write("one", "x");
                      Write("two", "x");
                  },
                  [] { return Text(VCompressAndDeCompress::CompressFileGroup("one two", "group")); }},
                 "tar -zcvf group.tar.gz one two", "group.tar.gz", 3);
}

TEST(ServiceFaultsTest, VMonitorFiles) {
    Sweep sweep("VMonitorFiles", {[] { Write("file", "x"); },
                                  [] {
                                      const int fd = VMonitorFiles::InotifyInit("ignored");
                                      if (fd < 0) return Text("no descriptor");
                                      {
                                          // An event that is there already, so that nothing has to be waited
                                          // for.
                                          const calls::WithoutFaults paused;
                                          (void)inotify_add_watch(fd, "file", IN_ATTRIB);
                                          (void)::chmod("file", 0600);
                                      }
                                      const bool hasChanged = VMonitorFiles::InotifyFileChange(fd, "file", 2);
                                      errno = 0;
                                      VMonitorFiles::Inotifyclose(fd);
                                      return Text(hasChanged ? "changed" : "failed");
                                  }});
    const std::string closed = "Inotifyclose 1 close failed error = 0";  // logged when closing succeeds
    sweep.Expect("inotify_init", "no descriptor").Log({"InotifyInit 1 inotify_init failed, error = {errno}"});
    sweep.Expect("inotify_add_watch", "failed")
        .Log({"InotifyFileChange 1 could not add watch file, error = {errno}", closed});
    sweep.Expect("read", "failed").Log({"InotifyFileChange 1 could not get event error", closed});
    sweep.Expect("close", "changed");
    sweep.Run("close 1 inotify_add_watch 1 inotify_init 1 memset_s 1 read 1");
}

TEST(ServiceFaultsTest, FixFirewall) {
    const ScratchDirectory scratch;
    CONTINUE_IN_PRIVATE_NAMESPACE(WithHelperTool(scratch, "trap '' PIPE; echo one; echo two; exit 0"));
    // The helper tool is not to die when its output is read no more. The pass is the only one: sleeping, or
    // failing to, ends the fixer.
    const Replaced nanosleepEnds(calls::nanosleep, [](const timespec* request, timespec*) {
        EXPECT_EQ(request->tv_sec, 300);
        const bool fails = calls::FailsNow("nanosleep");
        VFixFirewall::FixFirewallStop();
        return fails ? -1 : 0;
    });
    Operation operation = {Nothing, [] {
                               VFixFirewall::FixFirewallStart();
                               const calls::WithoutFaults paused;
                               return Text(LogRecorder::WaitFor("FixFirewallThread exit") ? "ended" : "runs");
                           }};
    operation.endsWithTheProcess = true;

    const std::vector<std::string> begin = {"FixFirewallStart 3 FixFirewallStart",
                                            "FixFirewallThread 3 FixFirewallThread",
                                            "FixFirewall 3 FixFirewall"};
    const std::string command = "/usr/local/tarnserver/bin/tarnfileprotect Firewall";
    const std::vector<std::string> run =
        Concatenate(begin, {"ProcessCmd 3 ProcessCmd in VFileSys", "ProcessCmd 3 " + command});
    const std::vector<std::string> end = {"FixFirewallStop 3 FixFirewallStop",
                                          "FixFirewallThread 3 FixFirewallThread exit"};
    const std::vector<std::string> passEnd = Concatenate({"FixFirewall 3 FixFirewall end"}, end);
    const std::string status = "ProcessCmd 3 ProcessCmd in VFileSys, rs = ";

    Sweep sweep("VFixFirewall", operation);
    sweep.Expect("pthread_create", "St12system_error").Log({begin[0]});
    sweep.Expect("sprintf_s", "ended")
        .Log(Concatenate(begin, Concatenate({"FixFirewall 1 sprintf_s failed!"}, end)));
    sweep.Expect("popen", "ended").Log(Concatenate(run, Concatenate({"ProcessCmd 1 popen failed"}, passEnd)));
    sweep.Expect("fgets", 1, "ended").Log(Concatenate(run, Concatenate({status + "0"}, passEnd)));
    sweep.Expect("fgets", 2, "ended")
        .Log(Concatenate(run, Concatenate({"ProcessCmd 3 one\n", status + "0"}, passEnd)));
    sweep.Expect("pclose", "ended")
        .Log(Concatenate(run,
                         Concatenate({"ProcessCmd 3 one\n", "ProcessCmd 3 two\n", status + "-1"}, passEnd)));
    // The thread's state, the platform's part of the thread, the stream of popen.
    sweep.Expect("malloc", 1, kBadAlloc).Log({begin[0]});
    sweep.Expect("malloc", 2, "St12system_error").Log({begin[0]}).Once();
    sweep.Expect("malloc", 2, kBadAlloc).Log({begin[0]}).Onwards();
    sweep.Expect("malloc", 3, 4, "ended")
        .Log(Concatenate(run, Concatenate({"ProcessCmd 1 popen failed"}, passEnd)));
    sweep.Run("fgets 3 malloc 5 nanosleep 1 pclose 1 popen 1 pthread_create 1 sprintf_s 1");
}

}  // namespace
