// The library in a program that loads it at run time and unloads it again.
#include <gtest/gtest.h>

#include <string>

#include "Process.h"

namespace {

ProcessResult LoadAndUnload(const std::string& what) {
    return RunProcess({"timeout", "60", LOAD_AND_UNLOAD_PATH, LIBRARY_PATH, what});
}

TEST(LoadAndUnloadTest, KeepsTheFirewallFixerStopped) {
    const ProcessResult result = LoadAndUnload("stopped");

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out,
              "FixFirewallStop\n"
              "FixFirewallStart\n"
              "FixFirewallThread\n"
              "FixFirewallThread exit\n");
}

TEST(LoadAndUnloadTest, LetsTheFirewallFixerGoOn) {
    const ProcessResult result = LoadAndUnload("started");

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    const std::string pass =
        "FixFirewall\n"
        "ProcessCmd in VFileSys\n"
        "/usr/local/tarnserver/bin/tarnfileprotect Firewall\n"
        "popen failed\n"
        "FixFirewall end\n";
    EXPECT_EQ(result.out, "FixFirewallStart\nFixFirewallThread\n" + pass + pass);
}

}  // namespace
