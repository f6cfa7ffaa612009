// What a command of vfilelist reports as JSON when it runs in this process, where calls can be replaced.
#ifndef TESTS_VFILELIST_REPORT_H
#define TESTS_VFILELIST_REPORT_H

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Output.h"

// `command` takes the output and returns the exit status, which goes to `exitStatus`, if that is not null.
template <typename Command>
nlohmann::json ReportOf(Command command, int* exitStatus = nullptr) {
    testing::internal::CaptureStdout();
    Output output(true);
    const int status = command(output);
    output.EndJson();
    EXPECT_TRUE(output.Finish());
    if (exitStatus != nullptr) *exitStatus = status;
    return nlohmann::json::parse(testing::internal::GetCapturedStdout());
}

#endif
