#include "Installed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "Package.h"
#include "Receipt.h"
#include "Report.h"
#include "StateDirectory.h"

namespace {

class InstalledTest : public testing::Test {
protected:
    InstalledTest() {
        Journal journal;
        journal.release = "2.0";
        for (const char* const name : {"a", "b\n"}) {
            package_.Install(name, "content");
            journal.targets.push_back({package_.InstalledPath(name), {"", 7, 0644, DigestOf("content")}, {}});
        }
        Receipt receipt;
        Add(journal, receipt);
        StateDirectory directory(state_);
        EXPECT_EQ(directory.Enter(), std::nullopt);
        EXPECT_EQ(directory.WriteReceipt(receipt), std::nullopt);
    }

    nlohmann::json Report(int* status) const {
        return ReportOf([this](Output& output) { return VerifyInstalled(state_, output); }, status);
    }
    std::string Text() const {
        return ShownOnATerminal(package_, [this](Output& output) { return VerifyInstalled(state_, output); });
    }

    const Package package_;
    const std::string state_ = package_.scratch().Path("state");
};

TEST_F(InstalledTest, FindsNothingWhereAllIsAsItWasInstalled) {
    int status = -1;
    EXPECT_EQ(Report(&status), nlohmann::json::parse(R"({"command": "verify", "stateDirectory": ")" + state_ +
                                                     R"(", "release": "2.0", "error": null, "changed": [],
                                                     "files": 2})"));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Text(), "{good}2 installed files, none changed.{}\n");
}

TEST_F(InstalledTest, NamesEachFileThatHasChanged) {
    package_.Install("b\n", "contend");
    int status = -1;
    const nlohmann::json report = Report(&status);

    EXPECT_EQ(status, 1);
    EXPECT_EQ(report["changed"], nlohmann::json::parse(R"([{"path": ")" + package_.InstalledPath() +
                                                       R"(/b\n", "text": "its content has changed"}])"));
    EXPECT_EQ(Text(), "{error}@/b\\x0a{}: its content has changed\n{error}2 installed files, 1 changed.{}\n");
}

TEST_F(InstalledTest, SaysWhenNothingWasInstalledOrTheReceiptCanNotBeRead) {
    int status = -1;
    package_.scratch().Write("state/receipt", "no receipt");
    const std::string trouble = state_ + "/receipt: it is no file of vfilelist, or one of another version";
    EXPECT_EQ(Report(&status)["error"], trouble);
    EXPECT_EQ(status, 2);
    EXPECT_EQ(Text(), "{error}" + trouble + "{}\n");

    package_.scratch().Write("state/receipt", "vfilelist-receipt 1\n");
    EXPECT_EQ(Report(&status)["error"], state_ + ": no upgrade was committed");
    EXPECT_EQ(status, 2);
}

TEST_F(InstalledTest, ShowsItsProgress) {
    EXPECT_THAT(ProgressOf([this](Output& output) { return VerifyInstalled(state_, output); }),
                testing::ElementsAre("verify: 0 of 2 files", "verify: 1 of 2 files"));
}

}  // namespace
