// What an operation must not leave behind: descriptors and heap blocks.
#ifndef TESTS_SUPPORT_RESOURCES_H
#define TESTS_SUPPORT_RESOURCES_H

#include <gtest/gtest.h>

#include "HeapCounter.h"
#include "LogRecorder.h"

// The number of descriptors that this process has open.
int OpenDescriptors();

// A test whose log starts empty, and which fails when it leaves a descriptor open.
class ResourceTest : public testing::Test {
protected:
    ResourceTest() : descriptors_(OpenDescriptors()) { LogRecorder::Clear(); }
    ~ResourceTest() override { EXPECT_EQ(OpenDescriptors(), descriptors_) << "descriptors left open"; }

private:
    const int descriptors_;
};

// Runs `operation` twice, the second time counted: no heap block of it may be left. What it returns or logs
// has to be dropped or cleared inside.
template <typename Operation>
void ExpectNoLeak(Operation operation) {
    operation();
    LogRecorder::Clear();
    const int descriptors = OpenDescriptors();
    const long blocks = heap::LiveBlocks();
    operation();
    LogRecorder::Clear();
    EXPECT_EQ(heap::LiveBlocks(), blocks) << "heap blocks left";
    EXPECT_EQ(OpenDescriptors(), descriptors) << "descriptors left open";
}

#endif
