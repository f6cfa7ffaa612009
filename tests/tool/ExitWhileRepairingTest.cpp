// The firewall fixer's thread against the end of its process, with the real logger.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "Process.h"
#include "ScratchDirectory.h"

namespace {

// Runs the program many times in one private namespace, with a helper tool that prints a few lines.
void ExpectCleanExits(const std::string& arguments) {
    const ScratchDirectory scratch;
    const std::string helper =
        scratch.Write("helper", "#!/bin/sh\nfor i in 1 2 3 4 5 6 7 8; do echo line $i; done\n");
    ASSERT_EQ(chmod(helper.c_str(), 0755), 0);
    const std::vector<std::string> inside = PrivateNamespace(
        {"--tmpfs", "/usr/local", "--ro-bind", helper, "/usr/local/tarnserver/bin/tarnfileprotect"});
    const std::string script =
        "for delay in 0 50 100 200 400 800 1200 1600 2000 3000 4000 6000 8000; do "
        "for round in 1 2 3 4; do " EXIT_WHILE_REPAIRING_PATH " $delay " +
        arguments + " || exit; done; done";

    const ProcessResult result = RunProcess(Concatenate(inside, {"sh", "-c", script}));

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

}  // namespace
