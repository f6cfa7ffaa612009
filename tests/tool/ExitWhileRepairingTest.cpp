// The firewall fixer's thread against the end of its process.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Process.h"
#include "Sanitizer.h"
#include "ScratchDirectory.h"

namespace {

// Runs the shell's `script` in a private namespace whose helper tool is `helper`.
ProcessResult RunWithHelper(const std::string& helper, const std::string& script) {
    const ScratchDirectory scratch;
    const std::vector<std::string> inside = PrivateNamespace(WithHelperTool(scratch, helper));
    return RunProcess(Concatenate(inside, {"sh", "-c", script}));
}

// With the real logger, many times: the thread is met at whatever point of its work.
void ExpectCleanExits(const std::string& arguments) {
    const ProcessResult result =
        RunWithHelper("exec 2> /dev/null; echo one; echo two",
                      "round=0; while [ $round -lt 40 ]; do " EXIT_WHILE_REPAIRING_PATH " " + arguments +
                          " || exit; round=$((round + 1)); done");

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.err, "");
}

TEST(ExitWhileRepairingTest, EndsTheProcessCleanlyWithTheLogOpen) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    ExpectCleanExits("");
}

TEST(ExitWhileRepairingTest, EndsTheProcessCleanlyAfterTheLogWasStopped) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    ExpectCleanExits("stop");
}

TEST(ExitWhileRepairingTest, RepairsWhenTheLibrarysStaticObjectsAreGone) {
    SKIP_WITHOUT_PRIVATE_NAMESPACE();
    if (VFS_TEST_THREAD_SANITIZER) GTEST_SKIP() << "ThreadSanitizer itself stands in front of nanosleep";

    // What is freed is overwritten, so that a use of it shows.
    const ProcessResult result = RunWithHelper("echo \"$*\" >> /tmp/told",
                                               "MALLOC_PERTURB_=85 LD_LIBRARY_PATH=" GATED_LOGGER_DIRECTORY
                                               " timeout 60 " EXIT_WHILE_REPAIRING_PATH " && cat /tmp/told");

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, "Firewall\nFirewall\n");
    EXPECT_EQ(result.err, "");
}

}  // namespace
