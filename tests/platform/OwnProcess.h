// A test that goes on in a process of its own.
#ifndef TESTS_PLATFORM_OWNPROCESS_H
#define TESTS_PLATFORM_OWNPROCESS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Process.h"

inline constexpr char kOwnProcess[] = "PLATFORM_TEST_DIRECTORY";

// Runs the test that calls it once more, alone in a process of its own in which InOwnProcess() is true.
inline ProcessResult RunInOwnProcess(const std::string& directory,
                                     const std::vector<std::string>& wrapper = {},
                                     const std::vector<std::string>& environment = {}) {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name();
    return RunProcess(Concatenate(wrapper, {THIS_PROGRAM_PATH, filter}),
                      Concatenate({std::string(kOwnProcess) + "=" + directory}, environment));
}

inline bool InOwnProcess() {
    return std::getenv(kOwnProcess) != nullptr;
}

inline std::string OwnProcessDirectory() {
    return std::getenv(kOwnProcess);
}

#define EXPECT_PASSED(result)                                                                             \
    do {                                                                                                  \
        EXPECT_EQ((result).exitStatus, 0) << (result).waitStatus << "\n" << (result).out << (result).err; \
        EXPECT_THAT((result).out, testing::HasSubstr("[  PASSED  ] 1 test."));                            \
    } while (false)

#endif
