#include "Provenance.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "Check.h"
#include "OrdinaryUser.h"
#include "Signer.h"
#include "SystemCalls.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// "CODE path: detail", with the scratch directory left out.
std::string Told(const Finding& finding, const Package& package) {
    std::string text = std::string(finding.kind->code) + " " + finding.path + ": " + finding.detail;
    const std::string place = package.scratch().Path() + "/";
    for (std::size_t at = 0; (at = text.find(place)) != std::string::npos;) text.erase(at, place.size());
    return text;
}

class ProvenanceTest : public testing::Test {
protected:
    ProvenanceTest() {
        package_.Bring("a", "content of a");
        package_.Bring("b", "content of b");
        package_.WriteEntries("a,b");
    }

    Manifest Record() const { return ManifestOf(package_); }
    void Write(const Manifest& manifest) const { WriteManifest(package_, manifest); }

    // The findings that have to do with where the package comes from.
    std::vector<std::string> Find(const Receipt& receipt = {}, bool isThorough = true,
                                  const std::string& trusted = kUsualTrustedDirectory,
                                  const std::string& root = "") const {
        const FileList list(package_.ListPath(), root);
        Output output(true);
        const Evidence evidence{ReadProvenance(package_.ListPath(), trusted), receipt, isThorough};
        std::vector<std::string> told;
        for (const Finding& finding : FindTrouble(list, evidence, output)) {
            const std::string code = finding.kind->code;
            for (const char* const word :
                 {"MANIFEST", "UNSIGNED", "RELEASE", "INSTALLED-CHANGED", "UNLISTED"}) {
                if (code.find(word) != std::string::npos) told.push_back(Told(finding, package_));
            }
        }
        return told;
    }

    const Package package_;
};

TEST_F(ProvenanceTest, APackageNeedsNoManifestWhereNobodyAsksForSignatures) {
    EXPECT_THAT(Find(), IsEmpty());
    const Provenance provenance = ReadProvenance(package_.ListPath(), kUsualTrustedDirectory);
    EXPECT_FALSE(provenance.manifest);
}

TEST_F(ProvenanceTest, APackageThatIsAsItsManifestSaysIsFine) {
    Write(Record());
    EXPECT_THAT(Find(), IsEmpty());
    const Signer maker;
    WriteManifest(package_, Record(), &maker);
    EXPECT_THAT(Find({}, true, TrustedDirectory(package_)), IsEmpty());
    EXPECT_TRUE(ReadProvenance(package_.ListPath(), TrustedDirectory(package_)).manifest);
}

TEST_F(ProvenanceTest, FindsWhatIsNotSignedAndReadsNothingOfItsManifest) {
    const std::string trusted = TrustedDirectory(package_);
    const std::string unsigned_ = "E-PACKAGE-UNSIGNED package/filelist.ini.mtree: ";
    EXPECT_THAT(Find({}, true, trusted), ElementsAre(unsigned_ + "No such file or directory"));

    package_.scratch().Write("package/filelist.ini.mtree", "no manifest at all");
    EXPECT_THAT(Find({}, true, trusted), ElementsAre(unsigned_ + "trusted: No such file or directory"));
    package_.scratch().Write("trusted/maker.pem", Signer().PublicKey());
    EXPECT_THAT(Find({}, true, trusted),
                ElementsAre(unsigned_ + "package/filelist.ini.mtree.sig: No such file or directory"));
    package_.scratch().Write("package/filelist.ini.mtree.sig", Signer().Signature("no manifest at all"));
    EXPECT_THAT(
        Find({}, true, trusted),
        ElementsAre(unsigned_ + "package/filelist.ini.mtree.sig: not the signature of a trusted key"));
}

TEST_F(ProvenanceTest, FindsAManifestThatCanNotBeRead) {
    package_.scratch().Write("package/filelist.ini.mtree", "no manifest at all");
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-INVALID package/filelist.ini.mtree: it does not begin with "
                                    "\"#mtree\""));
    ASSERT_EQ(unlink(ManifestPath(package_.ListPath()).c_str()), 0);
    package_.scratch().MakeDirectory("package/filelist.ini.mtree");
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-INVALID package/filelist.ini.mtree: Is a directory"));
}

TEST_F(ProvenanceTest, FindsEveryFileThatIsNotAsTheManifestSays) {
    Write(Record());
    package_.Bring("a", "content of A");
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS package/Common/a: its content is another one"));
    EXPECT_THAT(Find({}, false), IsEmpty()) << "contents are compared when they are recorded";
    package_.Bring("a", "content of a");

    package_.Bring("extra", "of nobody");
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS package/Common/extra: not listed"));
    ASSERT_EQ(unlink(package_.SourcePath("extra").c_str()), 0);

    ASSERT_EQ(unlink(package_.SourcePath("b").c_str()), 0);
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS package/Common/b: No such file or directory"));
}

TEST_F(ProvenanceTest, OpensNothingButRegularFilesAndLooksIntoAllDirectories) {
    Write(Record());
    ASSERT_EQ(unlink(package_.SourcePath("a").c_str()), 0);
    package_.scratch().Link("package/Common/a", "/dev/zero");
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS package/Common/a: not a regular file"));

    std::filesystem::remove_all(package_.SourcePath(""));
    EXPECT_THAT(Find(), testing::Contains("E-MANIFEST-DIFFERS package/Common/: No such file or directory"));
}

TEST_F(ProvenanceTest, IsThatOfTheListItselfWhenTheListIsALink) {
    Write(Record());
    package_.scratch().Link("elsewhere/filelist.ini", "../package/filelist.ini");
    EXPECT_TRUE(
        ReadProvenance(package_.scratch().Path("elsewhere/filelist.ini"), kUsualTrustedDirectory).manifest);

    const std::string list = package_.scratch().Link("package/current.ini", "filelist.ini");
    Output output(true);
    const Evidence evidence{ReadProvenance(list, kUsualTrustedDirectory), {}, true};
    EXPECT_THAT(FindTrouble(FileList(list), evidence, output), IsEmpty());
}

TEST_F(ProvenanceTest, CanNotKnowWhatADirectoryHoldsThatCanNotBeRead) {
    Write(Record());
    package_.Bring("hidden/extra", "of nobody");
    ASSERT_EQ(chmod(package_.SourcePath("hidden").c_str(), 0), 0);
    std::vector<std::string> found;
    {
        const OrdinaryUser user(package_.scratch().Path());
        found = Find();
    }
    ASSERT_EQ(chmod(package_.SourcePath("hidden").c_str(), 0755), 0);
    EXPECT_THAT(found, ElementsAre("E-MANIFEST-DIFFERS package/Common/: Permission denied"));
}

TEST_F(ProvenanceTest, SaysNothingOfTheModesOfDirectoriesThatTheManifestNames) {
    package_.WriteList("[Server]\nBin=@/new\n[Bin]\nf=a,b\n");
    const auto made = [this] {
        const FileList list(package_.ListPath());
        Output output(true);
        const Evidence evidence{ReadProvenance(package_.ListPath(), kUsualTrustedDirectory), {}, true};
        int count = 0;
        for (const Finding& finding : FindTrouble(list, evidence, output)) {
            if (std::string(finding.kind->code) == "W-DIR-MADE") ++count;
        }
        return count;
    };
    EXPECT_EQ(made(), 1);
    Write(Record());
    EXPECT_EQ(made(), 0);
}

TEST_F(ProvenanceTest, FindsAnotherFileListThanTheManifests) {
    Write(Record());
    package_.WriteEntries("b,a");
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS package/filelist.ini: its content is another one"));
    const Replaced replaced(calls::open, [this](const char* path, int flags, mode_t mode) {
        // Only who reads it whole follows no links.
        if (package_.ListPath() != path || (flags & O_NOFOLLOW) == 0)
            return calls::real::open(path, flags, mode);
        errno = EIO;
        return -1;
    });
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS package/filelist.ini: Input/output error"));
}

TEST_F(ProvenanceTest, FindsEntriesThatTheOtherSideLacks) {
    Manifest manifest = Record();
    const std::string last = package_.InstalledPath("b");
    manifest.entries.push_back({last + "z", false, 0644, "root", "root", 1, DigestOf("z")});
    manifest.entries.push_back({last + "zz", true, 0755, "root", "root", 0, {}});
    Write(manifest);
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS installed/bz: no entry of the list installs it"))
        << "directories may be there already";

    manifest = Record();
    manifest.entries[1].isDirectory = true;
    manifest.entries.pop_back();
    Write(manifest);
    EXPECT_THAT(Find(), ElementsAre("E-MANIFEST-DIFFERS installed/a: no file of the manifest",
                                    "E-MANIFEST-DIFFERS installed/b: no file of the manifest"));
}

TEST_F(ProvenanceTest, FindsOwnersThatThisMachineDoesNotKnowUnlessItIsAboutAnother) {
    Manifest manifest = Record();
    manifest.entries.back().user = "nosuchuser";
    Write(manifest);
    EXPECT_THAT(
        Find(),
        ElementsAre("E-MANIFEST-INVALID installed/b: this machine has no user nosuchuser or no group " +
                    manifest.entries.back().group));
    EXPECT_THAT(Find({}, true, kUsualTrustedDirectory, package_.scratch().MakeDirectory("root")), IsEmpty());
}

TEST_F(ProvenanceTest, FindsAReleaseThatMayNotFollow) {
    Manifest manifest = Record();
    manifest.release = "2.0";
    manifest.lowest = "1.5";
    Write(manifest);
    const auto found = [this](const std::string& installed) {
        Receipt receipt;
        receipt.history = {{installed, "/list", 1, 1}};
        return Find(receipt);
    };
    for (const char* const release : {"", "1.5", "1.10", "2.0"})
        EXPECT_THAT(found(release), IsEmpty()) << release;
    EXPECT_THAT(found("1.4"), ElementsAre("E-RELEASE-ORDER package/filelist.ini.mtree: the package replaces "
                                          "1.5 and later ones, and 1.4 is installed"));
    EXPECT_THAT(
        found("2.0.1"),
        ElementsAre(
            "E-RELEASE-ORDER package/filelist.ini.mtree: the package is 2.0, and 2.0.1 is installed"));

    manifest.release.clear();
    Write(manifest);
    EXPECT_THAT(found("1.5"), ElementsAre("E-RELEASE-ORDER package/filelist.ini.mtree: the package names no "
                                          "release, and 1.5 is installed"));
    EXPECT_THAT(found(""), IsEmpty());
    ASSERT_EQ(unlink(ManifestPath(package_.ListPath()).c_str()), 0);
    EXPECT_THAT(found("2.0.1"), IsEmpty()) << "a package without a manifest has no release";
}

TEST_F(ProvenanceTest, NamesInstalledFilesThatWereChangedSinceTheirUpgrade) {
    Receipt receipt;
    Journal journal;
    package_.Install("a", "installed");
    package_.Install("b", "installed");
    for (const char* const name : {"a", "b", "unlisted"}) {
        journal.targets.push_back({package_.InstalledPath(name), {"", 9, 0644, DigestOf("installed")}, {}});
    }
    Add(journal, receipt);
    EXPECT_THAT(Find(receipt), IsEmpty());

    package_.Install("b", "edited by hand");
    EXPECT_THAT(Find(receipt), ElementsAre("W-INSTALLED-CHANGED installed/b: its content has changed"));
    EXPECT_THAT(Find(receipt, false), IsEmpty()) << "an upgrade replaces it all the same";
}

TEST_F(ProvenanceTest, ChecksAgainstTheReceiptOfThisMachineUnlessThatIsNotToBeRead) {
    Manifest manifest = Record();
    manifest.release = "1.0";
    Write(manifest);
    const std::string state = package_.scratch().MakeDirectory("state");
    const auto codes = [&](const std::string& root) {
        Output output(true);
        CheckOptions options{package_.ListPath(), root};
        options.isErrorsOnly = true;
        options.stateDirectory = state;
        std::vector<std::string> found;
        for (const Finding& finding : FindTrouble(options, output)) found.push_back(Told(finding, package_));
        return found;
    };
    const std::string path =
        package_.scratch().Write("state/receipt", "vfilelist-receipt 1\nupgrade 1.1 /list 1 1\n");
    EXPECT_THAT(
        codes(""),
        ElementsAre("E-RELEASE-ORDER package/filelist.ini.mtree: the package is 1.0, and 1.1 is installed"));
    EXPECT_THAT(codes(package_.scratch().MakeDirectory("root")), IsEmpty()) << "it is about another machine";

    package_.scratch().Write("state/receipt", "vfilelist-receipt 1\nupgrade 1.1");
    EXPECT_THAT(codes(""),
                ElementsAre("E-RECEIPT-UNREADABLE : state/receipt: it is cut off, or was changed"));
    const auto failing = [&path](int error) {
        return [&path, error](const char* opened, int flags, mode_t mode) {
            if (path != opened) return calls::real::open(opened, flags, mode);
            errno = error;
            return -1;
        };
    };
    {
        const Replaced closed(calls::open, failing(EACCES));
        EXPECT_THAT(codes(""), IsEmpty());
    }
    const Replaced broken(calls::open, failing(EIO));
    EXPECT_THAT(codes(""), ElementsAre("E-RECEIPT-UNREADABLE : state/receipt: Input/output error"));
}

}  // namespace
