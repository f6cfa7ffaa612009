#include "Make.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FileList.h"
#include "FileSystem.h"
#include "Manifest.h"
#include "OrdinaryUser.h"
#include "Process.h"
#include "Report.h"
#include "SystemCalls.h"

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t kUnnamed = 54321;  // no user and no group of this machine

class MakeTest : public testing::Test {
protected:
    MakeTest() {
        (void)scratch_.MakeDirectory("new");
        (void)scratch_.MakeDirectory("old");
        options_.tree = scratch_.Path("new");
        options_.prefix = "/opt/app";
        options_.owner = "root:root";
        options_.package = scratch_.Path("package");
    }

    std::string New(const std::string& name, const std::string& content = "new") const {
        return scratch_.Write("new/" + name, content);
    }
    std::string Old(const std::string& name, const std::string& content = "old") const {
        return scratch_.Write("old/" + name, content);
    }
    std::string Packaged(const std::string& name) const { return scratch_.Read("package/" + name); }
    bool HasPackage() const { return scratch_.Has("package"); }
    void UseBase() { options_.base = scratch_.Path("old"); }

    nlohmann::json Report() {
        return ReportOf([this](Output& output) { return Make(options_, output); }, &status_);
    }
    // "PATH CODE" of everything that can't be packaged. Whatever was made before is gone.
    std::vector<std::string> Unsaid() {
        fs::remove_all(options_.package);
        std::vector<std::string> items;
        const nlohmann::json report = Report();
        for (const nlohmann::json& item : report["items"]) {
            items.push_back(item["path"].get<std::string>() + " " + item["code"].get<std::string>());
        }
        return items;
    }
    // Why no package was made; nothing is left of it.
    std::string Error(int status = 2) {
        testing::internal::CaptureStderr();
        const nlohmann::json report = Report();
        const std::string shown = testing::internal::GetCapturedStderr();
        EXPECT_EQ(status_, status);
        EXPECT_EQ(report["files"], 0);
        EXPECT_EQ(report["bytes"], 0);
        const std::string error = report.value("error", "");
        EXPECT_THAT(shown, testing::EndsWith("vfilelist: " + Shown(error) + "\n"));
        return error;
    }
    // The entries of the list that was made, "SOURCE TARGET", in its order.
    std::vector<std::string> Entries() const {
        const FileList list(scratch_.Path("package/filelist.ini"));
        std::vector<std::string> entries;
        for (const Entry& entry : list.entries()) entries.push_back(entry.text + " " + list.TargetOf(entry));
        return entries;
    }

    const Umask umask_{022};
    const ScratchDirectory scratch_;
    MakeOptions options_;
    int status_ = -1;
};

TEST_F(MakeTest, WritesAListAManifestAndTheFiles) {
    ASSERT_EQ(chmod(New("bin/tool", "a tool").c_str(), 04755), 0);
    New("lib/b.so");
    New("lib/a.so", "");
    ASSERT_EQ(chmod(New("readme").c_str(), 0444), 0);
    options_.release = "2.1";
    options_.lowest = "1.9";

    const nlohmann::json report = Report();

    EXPECT_EQ(status_, 0);
    EXPECT_EQ(report.dump(), R"({"bytes":12,"command":"make","files":4,"items":[],"package":")" +
                                 options_.package + R"(","release":"2.1"})");
    EXPECT_EQ(Packaged("filelist.ini"),
              "[Package_Intall_Type]\nPackageIntallType=Server\n\n"
              "[Server]\n/=/opt/app/\n/bin=/opt/app/bin/\n/lib=/opt/app/lib/\n\n"
              "[/]\nf0001=./readme\n\n[/bin]\nf0001=bin/tool\n\n[/lib]\nf0001=lib/a.so,lib/b.so\n");
    EXPECT_EQ(Packaged("filelist.ini.mtree"),
              "#mtree\n# release 2.1\n# lowest 1.9\n# filelist " + HexOf(DigestOf(Packaged("filelist.ini"))) +
                  "\n./opt/app type=dir mode=0755 uname=root gname=root\n"
                  "./opt/app/bin type=dir mode=0755 uname=root gname=root\n"
                  "./opt/app/bin/tool type=file mode=4755 uname=root gname=root size=6 sha256digest=" +
                  HexOf(DigestOf("a tool")) +
                  "\n./opt/app/lib type=dir mode=0755 uname=root gname=root\n"
                  "./opt/app/lib/a.so type=file mode=0644 uname=root gname=root size=0 sha256digest=" +
                  HexOf(DigestOf("")) +
                  "\n./opt/app/lib/b.so type=file mode=0644 uname=root gname=root size=3 sha256digest=" +
                  HexOf(DigestOf("new")) +
                  "\n./opt/app/readme type=file mode=0444 uname=root gname=root size=3 sha256digest=" +
                  HexOf(DigestOf("new")) + "\n");
    EXPECT_THAT(scratch_.List("package"), ElementsAre("Common", "filelist.ini", "filelist.ini.mtree"));
    EXPECT_EQ(Packaged("Common/bin/tool"), "a tool");
    EXPECT_EQ(PermissionsOf(scratch_.Path("package/Common/bin/tool")), 0755U) << "the copy is the maker's";
    EXPECT_EQ(PermissionsOf(scratch_.Path("package/Common/readme")), 0444U);
    EXPECT_EQ(PermissionsOf(scratch_.Path("package/filelist.ini")), 0644U);
}

TEST_F(MakeTest, LeavesTheRootDirectoryOutOfTheManifest) {
    New("etc/conf");
    options_.prefix = "/";

    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_THAT(Packaged("filelist.ini"), HasSubstr("\n/etc=/etc/\n"));
    EXPECT_THAT(Packaged("filelist.ini.mtree"), HasSubstr("\n./etc type=dir"));
    EXPECT_THAT(Packaged("filelist.ini.mtree"), testing::Not(HasSubstr("\n./ ")));
    options_.prefix = "//";
    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_THAT(Packaged("filelist.ini"), HasSubstr("\n/etc=/etc/\n"));
}

TEST_F(MakeTest, SaysToPeopleWhatItDid) {
    New("bin/tool");
    scratch_.Link("new/bin/link", "tool");
    const auto make = [this](Output& output) { return Make(options_, output); };

    EXPECT_EQ(WrittenBy(make, false, &status_),
              "  bin/link  a symlink\n1 file in 1 list, 3 B; 1 item can't be packaged.\n");
    EXPECT_EQ(status_, 1);

    fs::remove_all(options_.package);
    fs::remove(scratch_.Path("new/bin/link"));
    EXPECT_EQ(WrittenBy(make, false, &status_), "1 file in 1 list, 3 B.\n");
    EXPECT_EQ(status_, 0);
}

TEST_F(MakeTest, TakesOnlyWhatDiffersFromTheBase) {
    New("a", "same");
    Old("a", "same");
    New("b", "new");
    Old("b", "old");
    New("c", "longer");
    Old("c", "long");
    New("d", "another");
    UseBase();

    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_THAT(Entries(), ElementsAre("./b /opt/app/b", "./c /opt/app/c", "./d /opt/app/d"));
}

TEST_F(MakeTest, FollowsALinkToTheTreeAndFillsAnEmptyDirectory) {
    New("bin/tool");
    options_.tree = scratch_.Link("link", "new");
    options_.prefix = "/opt/app//";
    (void)scratch_.MakeDirectory("package");

    Report();

    EXPECT_EQ(status_, 0);
    EXPECT_THAT(Entries(), ElementsAre("bin/tool /opt/app/bin/tool"));
}

TEST_F(MakeTest, MakesTheSameOfTheSameTrees) {
    for (const char* const name : {"b/x", "a-b", "a/b", "a b", "z", "Z", "\xff"}) New(name, name);
    scratch_.Link("new/link", "z");
    const std::string copy = scratch_.Path("copy");
    fs::copy(options_.tree, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const nlohmann::json first = Report();
    const std::string list = Packaged("filelist.ini");
    const std::string manifest = Packaged("filelist.ini.mtree");
    options_.tree = copy;
    options_.package = scratch_.Path("package2");

    EXPECT_EQ(Report()["items"], first["items"]);
    EXPECT_EQ(scratch_.Read("package2/filelist.ini"), list);
    EXPECT_EQ(scratch_.Read("package2/filelist.ini.mtree"), manifest);
}

TEST_F(MakeTest, SpreadsEntriesOverKeysThatTheToolReads) {
    std::vector<std::string> expected;
    for (int i = 0; i < 300; ++i) {
        const std::string name = std::to_string(1000 + i) + std::string(100, 'x');
        New("dir/" + name);
        expected.push_back("dir/" + name + " /opt/app/dir/" + name);
    }
    EXPECT_THAT(Unsaid(), IsEmpty());

    EXPECT_EQ(Entries(), expected);
    const FileList list(scratch_.Path("package/filelist.ini"));
    const std::vector<ListKey>& keys = list.lists().at(0).keys;
    ASSERT_EQ(keys.size(), 9U);
    EXPECT_EQ(keys.front().name, "f0001");
    EXPECT_EQ(keys.back().name, "f0009");
    for (const ListKey& key : keys) EXPECT_LT(key.valueLength, 4095U);
    EXPECT_GT(keys.front().valueLength, 3900U);
}

TEST_F(MakeTest, FillsAValueUpTo4094Bytes) {
    const auto lengths = [this] {
        EXPECT_THAT(Unsaid(), IsEmpty());
        const FileList list(scratch_.Path("package/filelist.ini"));
        std::vector<std::size_t> found;
        for (const ListKey& key : list.lists().at(0).keys) found.push_back(key.valueLength);
        return found;
    };
    // With "./" before each and a comma between two, 45 times 90 bytes and 44.
    for (int i = 10; i < 55; ++i) New(std::to_string(i) + std::string(86, 'x'));
    EXPECT_THAT(lengths(), ElementsAre(4094));

    const std::string last = scratch_.Path("new/54" + std::string(86, 'x'));
    fs::rename(last, last + "y");
    EXPECT_THAT(lengths(), ElementsAre(4094 - 91, 91));
}

TEST_F(MakeTest, KeepsNamesThatOnlyLookOdd) {
    std::string all;  // what a name may hold
    for (int byte = 1; byte < 256; ++byte) {
        if (std::strchr("\t\n\v\f\r ,/\\", byte) == nullptr) all += static_cast<char>(byte);
    }
    const std::string inside = "x \t\v\fy";
    for (const std::string& name : {all, inside, std::string("-rf"), std::string("[a]"), std::string(";a"),
                                    std::string("#a"), std::string("a=b"), std::string("%2C"),
                                    std::string("<<<"), std::string(251, 'x'), std::string(".bakx")})
        New(name);

    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_EQ(Entries().size(), 11U);
}

TEST_F(MakeTest, SaysWhichNamesAListCannotHold) {
    const std::string longest(252, 'x');
    for (const char* const name :
         {"a,b", "a\\b", "a\nb", "a\rb", " a", "a ", "\ta", "a\t", "a\v", "a\f", "a.bak", ".bak", "good"})
        New(name);
    New(longest);

    EXPECT_THAT(Unsaid(), ElementsAre("\ta name", " a name", ".bak backup-name", "a\t name", "a\nb name",
                                      "a\v name", "a\f name", "a\rb name", "a  name", "a,b name",
                                      "a.bak backup-name", "a\\b name", longest + " long-name"));
    EXPECT_EQ(status_, 1);
    EXPECT_THAT(Entries(), ElementsAre("./good /opt/app/good"));

    options_.isAllowed = true;
    EXPECT_EQ(Unsaid().size(), 13U);
    EXPECT_EQ(status_, 0);
}

TEST_F(MakeTest, KeepsDirectoriesOfEveryNameButThoseWithLineEnds) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        if (std::strchr("\n\r/", byte) == nullptr) all += static_cast<char>(byte);
    }
    const std::string first = all.substr(0, 120);
    const std::string second = all.substr(120);
    for (const std::string& directory :
         {first, second, std::string(" "), std::string("a.bak"), std::string("\\")})
        New(directory + "/file");
    New("a\nb/file");
    New("a\nb/c/file");

    EXPECT_THAT(Unsaid(), ElementsAre("a\nb empty-directory", "a\nb/c empty-directory", "a\nb/c/file name",
                                      "a\nb/file name"));
    std::vector<std::string> targets;
    for (const std::string& entry : Entries()) targets.push_back(entry.substr(entry.find(" /opt") + 1));
    EXPECT_THAT(targets,
                testing::UnorderedElementsAre("/opt/app/" + first + "/file", "/opt/app/" + second + "/file",
                                              "/opt/app/ /file", "/opt/app/a.bak/file", "/opt/app/\\/file"));
}

// In Common a directory has another name than on the server, which must not be that of a file.
TEST_F(MakeTest, KeepsFilesApartFromDirectoriesOfOtherNames) {
    New("a,b/file", "in the directory");
    New("a%2Cb", "the file");
    New("sub/a%2Cb/file", "in the other directory");

    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_EQ(Entries().size(), 3U);
    EXPECT_EQ(Packaged("Common/a%2Cb"), "the file");
    EXPECT_EQ(Packaged("Common/a%2Cb.bak/file"), "in the directory");
    EXPECT_EQ(Packaged("Common/sub/a%252Cb.bak/file"), "in the other directory");
}

TEST_F(MakeTest, CutsNamesOfDirectoriesThatBecomeTooLong) {
    New(std::string(200, ',') + "/file");
    New(std::string(200, ',') + "x/file");

    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_EQ(Entries().size(), 2U);
}

TEST_F(MakeTest, SaysWhichDirectoriesAreTooLong) {
    const std::string fits = std::string(200, 'd') + "/" + std::string(48, 'e');
    options_.prefix = "/opt/app";  // and three slashes
    New(fits + "/file");
    New(fits + "x/file");

    EXPECT_THAT(Unsaid(), ElementsAre(fits + "x empty-directory", fits + "x/file long-directory"));
    EXPECT_EQ(FileList(scratch_.Path("package/filelist.ini")).lists().at(0).directoryValueLength, 259U);
}

TEST_F(MakeTest, InstallsNothingIntoTheRootDirectory) {
    New("file");
    New("bin/tool");
    options_.prefix = "/";

    EXPECT_THAT(Unsaid(), ElementsAre("file root-directory"));
    EXPECT_THAT(Entries(), ElementsAre("bin/tool /bin/tool"));
}

TEST_F(MakeTest, SaysWhatIsNoFile) {
    New("file");
    scratch_.Link("new/link", "file");
    scratch_.Link("new/dangling", "nowhere");
    scratch_.MakeDirectory("new/empty/deep");
    ASSERT_EQ(mkfifo(scratch_.Path("new/pipe").c_str(), 0600), 0);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)scratch_.Path("new/socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(fd);

    EXPECT_THAT(Unsaid(), ElementsAre("dangling link", "empty empty-directory", "empty/deep empty-directory",
                                      "link link", "pipe special", "socket special"));
}

TEST_F(MakeTest, SaysNothingOfWhatTheBaseHasAsWell) {
    for (const char* const tree : {"new", "old"}) {
        const std::string directory = tree;
        scratch_.Link(directory + "/link", "file");
        scratch_.Link(directory + "/other", directory);
        scratch_.MakeDirectory(directory + "/empty");
        scratch_.Write(directory + "/a,b", "same");
        scratch_.Write(directory + "/a.bak", "same");
        ASSERT_EQ(mkfifo(scratch_.Path(directory + "/pipe").c_str(), 0600), 0);
    }
    New("file");
    UseBase();

    EXPECT_THAT(Unsaid(), ElementsAre("other link")) << "it leads elsewhere";
}

TEST_F(MakeTest, SaysWhatOnlyTheBaseHas) {
    New("kept/file");
    Old("kept/file");
    Old("kept/gone");
    Old("gone/file");
    scratch_.Link("old/link", "kept");
    UseBase();

    EXPECT_THAT(Unsaid(),
                ElementsAre("gone removed", "gone/file removed", "kept/gone removed", "link removed"));
}

TEST_F(MakeTest, LeavesOutWhatWouldTakeThePlaceOfSomethingElse) {
    scratch_.Link("old/file", "nowhere");
    Old("directory/inside");
    Old("plain");
    scratch_.Link("old/dirlink", ".");
    New("file");
    New("directory");
    New("plain/deep/file");
    New("dirlink/file");
    New("good");
    UseBase();

    EXPECT_THAT(Unsaid(),
                ElementsAre("directory in-the-way", "directory/inside removed", "dirlink in-the-way",
                            "dirlink/file in-the-way", "file in-the-way", "plain in-the-way",
                            "plain/deep empty-directory", "plain/deep/file in-the-way"));
    EXPECT_THAT(Entries(), ElementsAre("./good /opt/app/good"));
}

TEST_F(MakeTest, LeavesOutWhatCouldHaveNoBackup) {
    New("a");
    Old("a");
    Old("a.bak", "left");
    New("a.bak", "left");
    New("b");
    New("b.bak/file");
    New("c");
    Old("c.bak/x", "same");
    New("c.bak/x", "same");
    New("same", "same");
    Old("same", "same");
    Old("same.bak", "same");
    New("same.bak", "same");
    New("d");
    New("d.bakx");
    UseBase();

    EXPECT_THAT(Unsaid(), ElementsAre("a backup-in-the-way", "b backup-in-the-way", "c backup-in-the-way"));
    EXPECT_THAT(Entries(),
                ElementsAre("./d /opt/app/d", "./d.bakx /opt/app/d.bakx", "b.bak/file /opt/app/b.bak/file"));
}

TEST_F(MakeTest, SaysWhichHardLinksComeApartAndWhichStay) {
    New("a", "new");
    fs::create_hard_link(New("b", "new"), scratch_.Path("new/c"));
    fs::create_hard_link(Old("kept", "same"), scratch_.Path("old/kept2"));
    fs::create_hard_link(New("kept", "same"), scratch_.Path("new/kept2"));
    fs::create_hard_link(Old("parted", "same"), scratch_.Path("old/parted2"));
    New("parted", "same");
    New("parted2", "same");
    fs::create_hard_link(Old("changed", "old"), scratch_.Path("old/changed2"));
    New("changed", "new");
    New("changed2", "old");
    New("joined", "same");
    fs::create_hard_link(scratch_.Path("new/joined"), scratch_.Path("new/joined2"));
    Old("joined", "same");
    Old("joined2", "same");
    UseBase();

    EXPECT_THAT(Unsaid(), ElementsAre("c hard-link", "joined2 hard-link", "parted2 hard-link"));
    EXPECT_THAT(Entries(), ElementsAre("./a /opt/app/a", "./b /opt/app/b", "./c /opt/app/c",
                                       "./changed /opt/app/changed"));
}

TEST_F(MakeTest, SaysWhichModesAnUpgradeKeeps) {
    const auto set = [](const std::string& path, mode_t mode) { ASSERT_EQ(chmod(path.c_str(), mode), 0); };
    set(New("listed"), 0755);
    set(Old("listed"), 0644);
    set(New("same", "same"), 04755);
    set(Old("same", "same"), 0755);
    set(New("alike"), 0600);
    set(Old("alike"), 0600);
    set(New("new/only"), 0755);
    set(New("directory/x", "same"), 0644);
    set(Old("directory/x", "same"), 0644);
    set(scratch_.Path("new/directory"), 01777);
    set(scratch_.Path("new"), 0711);
    UseBase();

    EXPECT_THAT(Unsaid(), ElementsAre(". mode", "directory mode", "listed mode", "same mode"));
    EXPECT_EQ(PermissionsOf(scratch_.Path("package/Common/listed")), 0755U);

    options_.prefix = "/";
    EXPECT_THAT(Unsaid(), testing::Not(testing::Contains(". mode"))) << "nothing is installed there";
}

TEST_F(MakeTest, SaysWhichOwnersAnUpgradeKeepsUnlessOneIsGiven) {
    SKIP_UNLESS_ROOT();
    const auto own = [](const std::string& path, uid_t user, gid_t group) {
        ASSERT_EQ(lchown(path.c_str(), user, group), 0);
    };
    own(New("user"), 1, 0);
    Old("user");
    own(New("group", "same"), 0, 1);
    Old("group", "same");
    own(New("both"), 1, 1);
    own(Old("both"), 1, 1);
    own(New("new"), 1, 1);
    own(scratch_.Link("new/link", "new"), 1, 1);
    scratch_.Link("old/link", "new");
    UseBase();
    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_THAT(Packaged("filelist.ini.mtree"), HasSubstr("/new type=file mode=0644 uname=root gname=root"));

    options_.owner.clear();
    EXPECT_THAT(Unsaid(), ElementsAre("group owner", "link owner", "user owner"));
    EXPECT_THAT(Packaged("filelist.ini.mtree"),
                HasSubstr("/new type=file mode=0644 uname=daemon gname=daemon"));
}

TEST_F(MakeTest, LeavesOutWhatHasAnOwnerWithoutAName) {
    SKIP_UNLESS_ROOT();
    New("good");
    ASSERT_EQ(lchown(New("user").c_str(), kUnnamed, 0), 0);
    ASSERT_EQ(lchown(New("group").c_str(), 0, kUnnamed), 0);
    New("directory/file");
    New("directory/deep/file");
    ASSERT_EQ(lchown(scratch_.Path("new/directory").c_str(), kUnnamed, 0), 0);
    EXPECT_THAT(Unsaid(), IsEmpty());

    options_.owner.clear();
    EXPECT_THAT(Unsaid(), ElementsAre("directory empty-directory", "directory/deep empty-directory",
                                      "directory/deep/file owner-name", "directory/file owner-name",
                                      "group owner-name", "user owner-name"));
    EXPECT_THAT(Entries(), ElementsAre("./good /opt/app/good"));
}

TEST_F(MakeTest, SaysWhichAttributesAreNotInstalled) {
    const auto mark = [](const std::string& path, const char* value) {
        return setxattr(path.c_str(), "user.note", value, std::strlen(value), 0) == 0;
    };
    if (!mark(New("new"), "x")) GTEST_SKIP() << "no user attributes here: " << std::strerror(errno);
    mark(New("changed"), "x");
    mark(Old("changed"), "y");
    mark(New("same", "same"), "x");
    Old("same", "same");
    mark(New("alike"), "x");
    mark(Old("alike"), "x");
    New("directory/file");
    mark(scratch_.Path("new/directory"), "x");
    UseBase();

    EXPECT_THAT(Unsaid(), ElementsAre("changed attributes", "directory attributes", "new attributes",
                                      "same attributes"));
}

TEST_F(MakeTest, MakesNoPackageOfNothing) {
    New("a,b");
    options_.isAllowed = true;

    EXPECT_EQ(Error(1), options_.package + ": nothing to install is left, and no package is made");
    EXPECT_FALSE(HasPackage());

    New("file", "same");
    Old("file", "same");
    Old("a,b", "new");
    UseBase();
    EXPECT_THAT(Error(1), HasSubstr("nothing to install"));
}

TEST_F(MakeTest, NeedsADirectoryOfItsOwn) {
    New("file");
    scratch_.Write("package/file", "mine");
    EXPECT_EQ(Error(), options_.package + ": it is there already and not empty");
    EXPECT_EQ(Packaged("file"), "mine");

    options_.package = scratch_.Write("occupied", "mine");
    EXPECT_THAT(Error(), HasSubstr(options_.package + ": "));
    options_.package = scratch_.Path("nowhere/package");
    EXPECT_EQ(Error(), options_.package + ": No such file or directory");
}

TEST_F(MakeTest, RefusesWhatCannotBeMeant) {
    New("file");
    for (const char* const prefix :
         {"", "opt", "./opt", "/opt/../app", "/opt/.", "//opt", "/o\np", "/o\rp"}) {
        options_.prefix = prefix;
        EXPECT_THAT(Error(), HasSubstr("the prefix is no absolute path")) << prefix;
    }
    options_.prefix = "/opt";
    for (const char* const owner : {"root", ":", "root:", ":root", "a b:c", "a:b:c", "a$b:c", "$:b c"}) {
        options_.owner = owner;
        EXPECT_THAT(Error(), HasSubstr("the owner is no USER:GROUP of names")) << owner;
    }
    options_.owner = "machine$:Users_1.a-b";
    options_.release = "1 2";
    EXPECT_THAT(Error(), HasSubstr("1 2: a release has"));
    options_.release = "1.2";
    options_.lowest = std::string(65, '1');
    EXPECT_THAT(Error(), HasSubstr(": a release has"));
    options_.lowest = "1.3";
    EXPECT_THAT(Error(), HasSubstr("1.2: it is older than the lowest release that it may replace"));
    EXPECT_FALSE(HasPackage());
    options_.release = options_.lowest = std::string(64, '1');
    EXPECT_THAT(Unsaid(), IsEmpty());
}

TEST_F(MakeTest, NamesWhatCannotBeRead) {
    options_.tree = scratch_.Path("nowhere");
    EXPECT_EQ(Error(), scratch_.Path("nowhere/") + ": No such file or directory");
    options_.tree = scratch_.Path("new");

    const std::string file = New("bin/file");
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    const OrdinaryUser user(scratch_.Path());
    EXPECT_EQ(Error(), file + ": Permission denied");
    EXPECT_FALSE(HasPackage());
}

TEST_F(MakeTest, NamesADirectoryThatCannotBeRead) {
    Old("bin/file");
    New("bin/file");
    UseBase();
    ASSERT_EQ(chmod(scratch_.Path("old/bin").c_str(), 0311), 0);
    const OrdinaryUser user(scratch_.Path());

    EXPECT_EQ(Error(), scratch_.Path("old/bin") + ": Permission denied");
    ASSERT_FALSE(HasPackage());
}

TEST_F(MakeTest, NoticesAFileThatChangesWhileItIsRead) {
    const std::string path = New("file", "new");
    for (const char* const tree : {"new", "old"}) {
        Old("file", "old");
        bool isRead = false;
        const Replaced read(calls::read, [&](int fd, void* data, std::size_t size) {
            const ssize_t count = calls::real::read(fd, data, size);
            if (!std::exchange(isRead, true))
                std::ofstream(scratch_.Path(tree + std::string("/file"))) << "other";
            return count;
        });
        options_.base = tree == std::string("old") ? scratch_.Path("old") : "";

        EXPECT_EQ(Error(), scratch_.Path(tree + std::string("/file")) + ": it changed while it was read");
        EXPECT_FALSE(HasPackage());
        New("file", "new");
    }
}

TEST_F(MakeTest, NamesAFileThatFailsWhileItIsRead) {
    const std::string path = New("file");
    const Replaced read(calls::read, [](int, void*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    });

    EXPECT_EQ(Error(), path + ": Input/output error");
    EXPECT_FALSE(HasPackage());
}

// The call fails for this path.
template <typename Result, typename... Rest>
auto FailingFor(std::string path, Result (*real)(const char*, Rest...), Result failure) {
    return [path, real, failure](const char* used, Rest... rest) {
        if (path != used) return real(used, rest...);
        errno = EIO;
        return failure;
    };
}

TEST_F(MakeTest, NamesADirectoryOfTheTreeThatFailsWhileItIsRead) {
    New("bin/file");
    const Replaced replaced(calls::readdir, [](DIR*) -> dirent* {
        errno = EIO;
        return nullptr;
    });
    EXPECT_EQ(Error(), scratch_.Path("new/") + ": Input/output error");
    EXPECT_FALSE(HasPackage());
}

TEST_F(MakeTest, NamesAFileThatGoesWhileItIsLookedAt) {
    const std::string path = New("file");
    {
        const Replaced replaced(calls::fstat, [&path](int fd, struct stat* status) {
            const int result = calls::real::fstat(fd, status);
            if (S_ISREG(status->st_mode)) (void)unlink(path.c_str());
            return result;
        });
        EXPECT_EQ(Error(), path + ": No such file or directory");
    }
    New("file");
    {
        const Replaced replaced(calls::fstat, [](int fd, struct stat* status) {
            const int result = calls::real::fstat(fd, status);
            errno = EIO;
            return S_ISREG(status->st_mode) ? -1 : result;
        });
        EXPECT_EQ(Error(), path + ": Input/output error");
    }
    {
        const Replaced replaced(calls::read, [&path](int fd, void* data, std::size_t size) {
            (void)unlink(path.c_str());
            return calls::real::read(fd, data, size);
        });
        EXPECT_EQ(Error(), path + ": No such file or directory");
    }
    New("file");
    const std::string link = scratch_.Link("new/link", "file");
    const Replaced replaced(calls::lstat, [&link](const char* used, struct stat* status) {
        const int result = calls::real::lstat(used, status);
        if (used == link) (void)unlink(link.c_str());
        return result;
    });
    EXPECT_EQ(Error(), link + ": No such file or directory");
    EXPECT_FALSE(HasPackage());
}

TEST_F(MakeTest, NamesAFileThatFailsOrChangesWhileItIsCompared) {
    options_.base = scratch_.MakeDirectory("old");
    New("file", "new");
    Old("file", "old");
    {
        const Replaced replaced(calls::open, [this](const char* used, int flags, mode_t mode) {
            if (scratch_.Path("old/file") != used || (flags & O_NOFOLLOW) != 0)
                return calls::real::open(used, flags, mode);
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(Error(), scratch_.Path("old/file") + ": Input/output error");
    }
    bool isRead = false;
    const Replaced replaced(calls::read, [&](int fd, void* data, std::size_t size) {
        if (!std::exchange(isRead, true)) std::ofstream(scratch_.Path("new/file")) << "other";
        return calls::real::read(fd, data, size);
    });
    EXPECT_EQ(Error(), scratch_.Path("new/file") + ": it changed while it was read");
    EXPECT_FALSE(HasPackage());
}

TEST_F(MakeTest, TakesNoNameOfAnOwnerThatAManifestCanNotHold) {
    New("file");
    options_.owner.clear();
    passwd user{};
    char name[] = "a b";
    user.pw_name = name;
    {
        const Replaced replaced(calls::getpwuid, [&user](uid_t) { return &user; });
        EXPECT_THAT(Unsaid(), ElementsAre("file owner-name"));
    }
    group owners{};
    owners.gr_name = name;
    const Replaced replaced(calls::getgrgid, [&owners](gid_t) { return &owners; });
    EXPECT_THAT(Unsaid(), ElementsAre("file owner-name"));
}

TEST_F(MakeTest, TellsOneDeviceFromAnother) {
    SKIP_UNLESS_ROOT();
    options_.base = scratch_.MakeDirectory("old");
    New("file");
    New("same/x");
    const auto make = [this](const char* name, unsigned minor) {
        ASSERT_EQ(mknod(scratch_.Path(name).c_str(), S_IFCHR | 0600, makedev(1, minor)), 0);
    };
    make("new/device", 3);
    make("old/device", 5);
    make("new/alike", 3);
    make("old/alike", 3);
    const nlohmann::json report = Report();
    std::vector<std::string> paths;
    for (const auto& item : report["items"]) paths.push_back(item["path"]);
    EXPECT_THAT(paths, testing::Contains("device"));
    EXPECT_THAT(paths, testing::Not(testing::Contains("alike")));
}

TEST_F(MakeTest, LeavesNothingWhenAPartOfThePackageCanNotBeMade) {
    New("bin/file");
    const std::string copy = scratch_.Path("package/Common/bin/file");
    {
        const Replaced replaced(calls::open, FailingFor(copy, &calls::real::open, -1));
        EXPECT_EQ(Error(), copy + ": Input/output error");
    }
    {
        const Replaced replaced(calls::mkdir,
                                FailingFor(scratch_.Path("package/Common"), &calls::real::mkdir, -1));
        EXPECT_EQ(Error(), copy + ": Input/output error");
    }
    {
        int writes = 0;
        const Replaced write(calls::write, [&writes](int fd, const void* data, std::size_t size) {
            ++writes;
            return calls::real::write(fd, data, size);
        });
        const Replaced replaced(calls::close, [&writes](int fd) {
            const int result = calls::real::close(fd);
            if (writes == 0) return result;
            errno = EIO;
            return -1;
        });
        EXPECT_EQ(Error(), copy + ": Input/output error");
    }
    EXPECT_FALSE(HasPackage());
}

TEST_F(MakeTest, LeavesNothingWhenTheManifestReadsOtherwise) {
    New("file", "new");
    {
        const Replaced write(calls::write, [](int fd, const void* data, std::size_t size) {
            std::string text(static_cast<const char*>(data), size);
            const std::size_t at = text.find("size=3");
            if (at != std::string::npos) text[at + 5] = '4';
            return calls::real::write(fd, text.data(), text.size());
        });
        EXPECT_THAT(Error(), HasSubstr("filelist.ini.mtree: it can't be read as it was written"));
    }
    const std::string manifest = scratch_.Path("package/filelist.ini.mtree");
    const Replaced open(calls::open, [&manifest](const char* used, int flags, mode_t mode) {
        if (manifest != used || (flags & O_CREAT) != 0) return calls::real::open(used, flags, mode);
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(Error(), manifest + ": Input/output error");
    EXPECT_FALSE(HasPackage());
}

TEST_F(MakeTest, LeavesNothingWithoutMemoryForTheDigests) {
    New("file");
    const Replaced memory(calls::EVP_MD_CTX_new, []() -> void* { return nullptr; });

    EXPECT_EQ(Error(), "std::bad_alloc");
    EXPECT_FALSE(HasPackage());
}

// Whatever fails, nothing is left, nor is a descriptor; an empty directory that was there stays.
TEST_F(MakeTest, LeavesNothingWhenSomethingCannotBeWritten) {
    New("bin/file");
    const auto descriptors = [] {
        const fs::directory_iterator open("/proc/self/fd");
        return std::distance(begin(open), end(open));
    };
    const auto before = descriptors();
    (void)scratch_.MakeDirectory("package");
    for (int failing = 1; failing <= 3; ++failing) {
        int writes = 0;
        const Replaced write(calls::write, [&](int fd, const void* data, std::size_t size) -> ssize_t {
            if (fd > STDERR_FILENO && ++writes >= failing) {
                errno = ENOSPC;
                return -1;
            }
            return calls::real::write(fd, data, size);
        });

        EXPECT_THAT(Error(), HasSubstr(": No space left on device")) << failing;
        EXPECT_THAT(scratch_.List("package"), IsEmpty());
    }
    const Replaced rename(calls::rename, [](const char*, const char*) {
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(Error(), scratch_.Path("package/filelist.ini") + ": Input/output error");
    EXPECT_THAT(scratch_.List("package"), IsEmpty());
    fs::remove(options_.package);
    const Replaced fchmod(calls::fchmod, [](int, mode_t) {
        errno = EPERM;
        return -1;
    });
    EXPECT_EQ(Error(), scratch_.Path("package/Common/bin/file") + ": Operation not permitted");
    EXPECT_FALSE(HasPackage());
    EXPECT_EQ(descriptors(), before);
}

TEST_F(MakeTest, WritesOnThoughOnlyAPartIsTaken) {
    New("file", "some content");
    const Replaced write(calls::write, [](int fd, const void* data, std::size_t size) {
        return calls::real::write(fd, data, fd > STDERR_FILENO && size > 1 ? 1 : size);
    });

    EXPECT_THAT(Unsaid(), IsEmpty());
    EXPECT_EQ(Packaged("Common/file"), "some content");
}

TEST_F(MakeTest, LeavesNothingOnAFullDisk) {
    CONTINUE_IN_PRIVATE_NAMESPACE((std::vector<std::string>{"--size", "65536", "--tmpfs", "/mnt"}));
    New("bin/large", std::string(400000, 'x'));
    options_.package = "/mnt/package";

    EXPECT_THAT(Error(), "/mnt/package/Common/bin/large: No space left on device");
    EXPECT_TRUE(fs::is_empty("/mnt"));
}

// What counts is what will be read.
TEST_F(MakeTest, LeavesNothingWhenItReadsOtherwise) {
    New("a");
    New("b");
    for (const std::string spoilt : {",./b", "/opt/app/\n", "size=3"}) {
        const Replaced write(calls::write, [&](int fd, const void* data, std::size_t size) {
            std::string text(static_cast<const char*>(data), size);
            const std::size_t at = text.find(spoilt);
            if (at != std::string::npos) text.replace(at, spoilt.size(), spoilt.size(), '7');
            return calls::real::write(fd, text.data(), text.size());
        });
        EXPECT_THAT(Error(), HasSubstr(": it can't be read as it was written")) << spoilt;
        EXPECT_FALSE(HasPackage());
    }
}

TEST_F(MakeTest, SaysWhatItCannotReadOfItsOwnList) {
    New("file");
    const Replaced fopen(calls::fopen, [](const char* path, const char* mode) -> FILE* {
        if (std::strstr(path, "filelist.ini") == nullptr) return calls::real::fopen(path, mode);
        errno = EIO;
        return nullptr;
    });

    EXPECT_THAT(Error(), HasSubstr("filelist.ini.part: it can't be read as it was written"));
    EXPECT_FALSE(HasPackage());
}

TEST_F(MakeTest, ShowsItsProgress) {
    New("a", "12");
    New("b", "345");
    EXPECT_THAT(ProgressOf([this](Output& output) { return Make(options_, output); }),
                testing::Contains("make: 5 B of 5 B"));
}

TEST_F(MakeTest, WritesJsonAsItsSchemaHasIt) {
    New("bin/\xff,");
    New("bin/file");
    const auto expect = [this](int status) {
        const ProcessResult made =
            RunProcess({VFILELIST_PATH, "make", "--json", "--tree", options_.tree, "--owner", "root:root",
                        "--release", "1.0", "--lowest", "0.9", "--prefix", "/opt", options_.package});
        EXPECT_EQ(made.exitStatus, status);
        const std::string document = scratch_.Write("document.json", made.out);
        const ProcessResult result = RunProcess({"/usr/bin/python3", "/usr/bin/jsonschema", "-i", document,
                                                 VFS_SOURCE_DIRECTORY "/docs/vfilelist.schema.json"});
        EXPECT_EQ(result.exitStatus, 0) << result.out << result.err << made.out;
    };
    expect(1);
    expect(2);  // the package is there
}

TEST_F(MakeTest, NeedsATreeAndAPackage) {
    New("bin/file");
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {options_.package},
        {"--tree", options_.tree},
        {"--tree", "", options_.package},
        {"--tree", scratch_.Path("nowhere"), options_.package},
        {"--tree", options_.tree, "--base", "", options_.package},
        {"--tree", New("bin/file"), options_.package},
    };
    for (const std::vector<std::string>& arguments : wrong) {
        const ProcessResult result = RunProcess(Concatenate({VFILELIST_PATH, "make"}, arguments));
        EXPECT_EQ(result.exitStatus, 2) << testing::PrintToString(arguments);
        EXPECT_THAT(result.out, IsEmpty());
    }
    EXPECT_FALSE(HasPackage());
}

}  // namespace
