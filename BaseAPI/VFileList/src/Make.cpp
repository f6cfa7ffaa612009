// Reads two trees, decides what goes into the package, writes that, and shows what was done.
#include "Make.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "FileList.h"
#include "Files.h"
#include "ListText.h"
#include "Manifest.h"
#include "TreeDifference.h"

namespace fs = std::filesystem;

namespace {

constexpr char kList[] = "filelist.ini";
constexpr char kCommon[] = "Common";
constexpr char kOtherwise[] = ": it can't be read as it was written";
constexpr char kUnfinishedList[] = "filelist.ini.part";  // no pass treats it as the list
constexpr mode_t kListMode = 0666;

// Calls `write` with a file that was not there before. What it leaves is the file, whole.
Trouble MakeFile(const std::string& path, mode_t mode, const std::function<Trouble(int fd)>& write) {
    Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!file) return TroubleWith(path, errno);
    if (Trouble trouble = write(file.get())) return trouble;
    if (fchmod(file.get(), mode) != 0 || file.Close() != 0) return TroubleWith(path, errno);
    return std::nullopt;
}

Trouble WriteText(const std::string& path, const std::string& text) {
    return MakeFile(path, kListMode & ~CurrentUmask(), [&](int fd) { return WriteAll(fd, path, text); });
}

unsigned long long SizeOf(const DirectoryTree& tree, const std::set<std::string>& files) {
    unsigned long long bytes = 0;
    for (const std::string& path : files) {
        bytes += static_cast<unsigned long long>(tree.at(path).status.st_size);
    }
    return bytes;
}

class PackageWriter {
public:
    PackageWriter(const MakeOptions& options, std::string prefix, const DirectoryTree& tree,
                  const PackagePlan& plan, Output& output)
        : options_(options), prefix_(std::move(prefix)), tree_(tree), plan_(plan), output_(output) {}

    // After trouble nothing of the package is left.
    Trouble Write();

private:
    std::string Path(const std::string& name) const { return options_.package + "/" + name; }
    std::string TargetOf(const std::string& path) const {
        return path.empty() ? prefix_ : prefix_ + "/" + path;
    }
    Trouble MakeDirectory();
    Trouble WriteParts();
    Trouble CopyFiles();
    Trouble Copy(const std::string& path, ManifestEntry& entry);
    Trouble ReadBack(const std::string& listPath, const std::string& manifest) const;
    void Remove() const;

    const MakeOptions& options_;
    const std::string prefix_;
    const DirectoryTree& tree_;
    const PackagePlan& plan_;
    Output& output_;
    bool isMade_ = false;
    Manifest manifest_;
    const unsigned long long total_ = SizeOf(tree_, plan_.files);
    unsigned long long bytes_ = 0;
};

Trouble PackageWriter::Write() {
    if (Trouble trouble = MakeDirectory()) return trouble;
    Trouble trouble;
    try {
        trouble = WriteParts();
    } catch (const std::exception& error) {
        trouble = error.what();
    }
    if (trouble) Remove();
    return trouble;
}

Trouble PackageWriter::MakeDirectory() {
    std::error_code error;
    isMade_ = fs::create_directory(options_.package, error);
    if (error) return TroubleWith(options_.package, error.value());
    const bool isEmpty = fs::is_empty(options_.package, error);
    if (error) return TroubleWith(options_.package, error.value());
    if (!isEmpty) return options_.package + ": it is there already and not empty";
    return std::nullopt;
}

Trouble PackageWriter::WriteParts() {
    if (Trouble trouble = CopyFiles()) return trouble;
    const std::string list = PrintFileList(plan_.files, prefix_);
    manifest_.release = options_.release;
    manifest_.lowest = options_.lowest;
    manifest_.fileListDigest = DigestOf(list);
    const std::string manifest = Print(manifest_);
    const std::string unfinished = Path(kUnfinishedList);
    if (Trouble trouble = WriteText(ManifestPath(Path(kList)), manifest)) return trouble;
    if (Trouble trouble = WriteText(unfinished, list)) return trouble;
    if (Trouble trouble = ReadBack(unfinished, manifest)) return trouble;
    if (rename(unfinished.c_str(), Path(kList).c_str()) != 0) return TroubleWith(Path(kList), errno);
    return std::nullopt;
}

Trouble PackageWriter::CopyFiles() {
    std::set<std::string> paths = plan_.directories;
    paths.insert(plan_.files.begin(), plan_.files.end());
    for (const std::string& path : paths) {
        const TreeFile& file = tree_.at(path);
        const bool isDirectory = S_ISDIR(file.status.st_mode);
        ManifestEntry& entry = manifest_.entries.emplace_back();
        entry = {TargetOf(path), isDirectory, file.attributes.mode, file.user, file.group, 0, {}};
        if (isDirectory) continue;
        if (Trouble trouble = Copy(path, entry)) return trouble;
    }
    return std::nullopt;
}

// Reads the file once, for the copy and for its digest.
Trouble PackageWriter::Copy(const std::string& path, ManifestEntry& entry) {
    const std::string source = options_.tree + "/" + path;
    const std::string copy = Path(kCommon) + "/" + EntryFor(path);
    std::error_code failure;
    fs::create_directories(fs::path(copy).parent_path(), failure);
    if (failure) return TroubleWith(copy, failure.value());

    Hasher hasher;
    const auto write = [&](int fd) {
        Trouble trouble;
        const int error = ReadBlocks(source, [&](std::string_view block) {
            hasher.Add(block);
            if (!trouble) trouble = WriteAll(fd, copy, block);
            entry.size += static_cast<off_t>(block.size());
        });
        return error != 0 ? TroubleWith(source, error) : trouble;
    };
    // The set-id bits are the manifest's: the copy is the maker's.
    if (Trouble trouble = MakeFile(copy, entry.mode & 0777, write)) return trouble;
    entry.digest = hasher.Finish();
    bytes_ += static_cast<unsigned long long>(entry.size);
    output_.ProgressOfBytes("make", bytes_, total_);

    struct stat now {};
    if (lstat(source.c_str(), &now) != 0) return TroubleWith(source, errno);
    if (!IsUnchanged(tree_.at(path).status, now)) return source + ": it changed while it was read";
    return std::nullopt;
}

// The lists as the passes and the upgrade will read them have to be what was meant.
Trouble PackageWriter::ReadBack(const std::string& listPath, const std::string& manifest) const {
    std::vector<std::pair<std::string, std::string>> meant;
    for (const std::string& path : plan_.files) meant.emplace_back(EntryFor(path), TargetOf(path));
    const FileList list(listPath);
    std::vector<std::pair<std::string, std::string>> read;
    for (const Entry& entry : list.entries()) read.emplace_back(entry.text, list.TargetOf(entry));
    std::sort(meant.begin(), meant.end());
    std::sort(read.begin(), read.end());
    if (meant != read) return listPath + kOtherwise;

    const std::string manifestPath = ManifestPath(Path(kList));
    std::string text;
    Manifest parsed;
    const int error = ReadWhole(manifestPath, text);
    if (error != 0) return TroubleWith(manifestPath, error);
    const Trouble trouble = Parse(text, parsed);
    if (trouble || text != manifest) return manifestPath + kOtherwise;
    return std::nullopt;
}

// The directory was empty: all in it is the package's.
void PackageWriter::Remove() const {
    std::error_code ignored;
    for (const char* const name : {kList, kUnfinishedList, kCommon}) fs::remove_all(Path(name), ignored);
    fs::remove(ManifestPath(Path(kList)), ignored);
    if (isMade_) fs::remove(options_.package, ignored);
}

Trouble WhyRefused(const MakeOptions& options, const std::string& prefix) {
    for (const std::string& release : {options.release, options.lowest}) {
        if (!release.empty() && !IsRelease(release))
            return release + ": a release has 1 to 64 letters, digits and \"+-._~\"";
    }
    if (!options.release.empty() && IsOlder(options.release, options.lowest))
        return options.release + ": it is older than the lowest release that it may replace";
    const bool isNormal = prefix.empty() || fs::path(prefix).lexically_normal().string() == prefix;
    if (options.prefix.rfind('/', 0) != 0 || !isNormal || prefix.find_first_of("\r\n") != std::string::npos)
        return options.prefix + R"(: the prefix is no absolute path without "//", "." and "..")";
    const std::size_t colon = options.owner.find(':');
    const bool isOwner = colon != std::string::npos && IsOwnerName(options.owner.substr(0, colon)) &&
                         IsOwnerName(options.owner.substr(colon + 1));
    if (!options.owner.empty() && !isOwner) return options.owner + ": the owner is no USER:GROUP of names";
    return std::nullopt;
}

void SetOwner(const std::string& owner, DirectoryTree& tree) {
    const std::size_t colon = owner.find(':');
    if (colon == std::string::npos) return;
    for (auto& [path, file] : tree) {
        file.user = owner.substr(0, colon);
        file.group = owner.substr(colon + 1);
    }
}

void Show(const MakeOptions& options, const PackagePlan& plan, unsigned long long bytes,
          const Trouble& trouble, Output& output) {
    output.Member("command", "make");
    output.Member("package", options.package);
    output.Member("files", plan.files.size());
    output.Member("bytes", bytes);
    output.Member("release", options.release);
    output.BeginList("items");
    for (const Unsaid& item : plan.unsaid) {
        output.Item({{"path", item.path}, {"code", item.code}, {"text", item.text}});
        output.Line("  " + output.Paint(Style::kWarning, Shown(item.path)) + "  " + Shown(item.text));
    }
    output.EndList();
    if (trouble) {
        output.Member("error", *trouble);
        (void)std::fprintf(stderr, "vfilelist: %s\n", Shown(*trouble).c_str());
        return;
    }
    const std::string unsaid =
        plan.unsaid.empty() ? "" : "; " + Counted(plan.unsaid.size(), "item") + " can't be packaged";
    output.Line(Counted(plan.files.size(), "file") + " in " + Counted(plan.lists.size(), "list") + ", " +
                ShownSize(bytes) + unsaid + ".");
}

}  // namespace

int Make(const MakeOptions& options, Output& output) {
    std::string prefix = WithoutTrailingSlashes(options.prefix);
    if (prefix == "/") prefix.clear();
    TreeFacts facts;
    PackagePlan plan;
    Trouble trouble = WhyRefused(options, prefix);
    if (!trouble) trouble = ReadTrees(options.tree, options.base, output, facts);
    if (!trouble) {
        SetOwner(options.owner, facts.files);
        plan = Decide(facts, prefix, options.owner.empty());
    }
    const bool hasNothing = !trouble && plan.files.empty();
    if (hasNothing) {
        trouble = options.package + ": nothing to install is left, and no package is made";
    } else if (!trouble) {
        trouble = PackageWriter(options, prefix, facts.files, plan, output).Write();
        if (trouble) plan.files.clear();
    }
    Show(options, plan, SizeOf(facts.files, plan.files), trouble, output);
    if (trouble) return hasNothing ? kFindings : kWrongUse;
    return plan.unsaid.empty() || options.isAllowed ? kFine : kFindings;
}
