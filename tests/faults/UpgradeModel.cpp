#include "UpgradeModel.h"

#include <algorithm>
#include <cerrno>
#include <optional>

namespace {

// One run of one pass.
class Run {
public:
    Run(const std::string& pass, const ModelPackage& package, const Fault& fault)
        : pass_(pass),
          package_(package),
          fault_(fault),
          files_(package.files),
          directories_(package.directories) {}

    ModelOutcome Whole() {
        const bool isDone = AllLists();
        Log("main 3 ---------------------------------------------------");
        Log(isDone ? "main 3             Successfully completed" : "main 3             Failed");
        return {isDone ? 0 : -10000, log_, files_};
    }

private:
    bool Fails(const std::string& call) {
        if (call != fault_.call) return false;
        ++count_;
        return count_ == fault_.n || (fault_.isOnwards && count_ > fault_.n);
    }
    void Log(const std::string& line) { log_.push_back(line); }
    std::string Operator() const {
        return pass_ == "-rename" ? "RenameOperator" : pass_ == "-copy" ? "CopyOperator" : "CleanOperator";
    }
    bool Has(const std::string& path) const {
        return files_.count(path) == 1 ||
               std::find(directories_.begin(), directories_.end(), path) != directories_.end();
    }
    // access()
    bool IsAccessible(const std::string& path) { return !Fails("access") && Has(path); }

    bool AllLists() {
        const std::string installType = Fails("IniGetString") ? "" : package_.installType;
        Log("GetPathSectionMap 3 PackageIntallType : " + installType);
        if (Fails("IniGetStringItems") || installType.empty()) {
            Log("GetPathKeyAndValue 1 Get path list fail");
            Log("GetPathSectionMap 1 Get path list fail");
            Log(Operator() + " 1 Get GetPathSectionMap fail");
            return false;
        }
        std::vector<std::string> targets;
        for (const ModelList& list : package_.lists)
            targets.push_back(Fails("IniGetString") ? "/" : list.directory);
        for (std::size_t i = 0; i < targets.size(); ++i) {
            if (!OneList(package_.lists[i], targets[i])) return false;
        }
        return true;
    }

    bool OneList(const ModelList& list, const std::string& target) {
        Log(Operator() + " 3 " + list.section + " , " + target);
        std::vector<ModelEntry> entries;
        if (!Fails("IniGetStringItems")) {
            for (const ModelKey& key : list.keys) {
                if (!Fails("IniGetString"))
                    entries.insert(entries.end(), key.entries.begin(), key.entries.end());
            }
        }
        if (pass_ == "-copy" && !IsAccessible(target == "/" ? "/" : target.substr(0, target.size() - 1))) {
            MakeDirectory(target);
        }
        for (const ModelEntry& entry : entries) {
            const std::string path = target + entry.name;
            const bool isDone = pass_ == "-rename" ? RenameEntry(path)
                                : pass_ == "-copy" ? CopyEntry("pkg/Common/" + entry.source, path)
                                                   : CleanEntry(path + ".bak");
            if (!isDone) return false;
        }
        return true;
    }

    bool RenameEntry(const std::string& path) {
        Log("RenameOperator 3 " + path + " ");
        if (!IsAccessible(path)) return true;
        if (Fails("rename")) {
            Log("RenameFile 1 Failed:rename " + path + ", " + path + ".bak");
            return false;
        }
        Log("RenameFile 3 rename: " + path + ", " + path + ".bak");
        files_[path + ".bak"] = files_.at(path);
        files_.erase(path);
        return true;
    }

    bool CleanEntry(const std::string& backup) {
        Log("CleanOperator 3 " + backup + " ");
        if (!IsAccessible(backup)) return true;
        if (Fails("remove")) {
            Log("CleanOperator 1 Failed:RemoveFile " + backup);
            return false;
        }
        Log("CleanOperator 3 RemoveFile:" + backup + " ");
        files_.erase(backup);
        return true;
    }

    // What comes of it is not asked for.
    void MakeDirectory(const std::string& target) {
        if (target != "/" && Fails("getcwd")) return;
        if (target != "/" && Fails("snprintf_s")) return;
        if (Fails("strcpy_s")) return;  // of an absolute path into the path value, of any path out of it
        if (target == "/" && Fails("strcpy_s")) return;
        const std::string whole = target == "/" ? target : target.substr(0, target.size() - 1);
        if (!Fails("stat") && Has(whole)) return;
        if (target == "/") {
            if (!Fails("stat")) return;
            (void)Fails("mkdir");
            return;
        }

        // A directory that is there and can't be looked at can't be made either.
        for (long i = 0; i < package_.ancestors; ++i) {
            if (!Fails("stat")) continue;
            (void)Fails("mkdir");
            return;
        }
        for (std::size_t slash = whole.find('/'); slash != std::string::npos;
             slash = whole.find('/', slash + 1)) {
            if (!MakeLevel(whole.substr(0, slash))) return;
        }
        (void)MakeLevel(whole);
    }

    bool MakeLevel(const std::string& path) {
        if (!Fails("stat") && Has(path)) return true;
        if (Fails("mkdir") || Has(path)) return false;
        directories_.push_back(path);
        return true;
    }

    bool CopyEntry(const std::string& source, const std::string& target) {
        Log("CopyOperator 3 " + source + " , " + target);
        if (!IsAccessible(source)) {
            Log("CopyFile 1 Does Not Exist:" + source);
            return false;
        }
        if (!CopyFile(source, target)) {
            Log("CopyFile 1 Failed:copy " + source + ", " + target);
            return false;
        }
        Log("CopyFile 3 copy: " + source + ", " + target);
        const long sourceSize = FileSize(source);
        const long targetSize = FileSize(target);
        if (sourceSize == targetSize) return true;
        Log("CompareFileSizes 1 inFileSize:" + std::to_string(sourceSize) +
            "，outFileSize:" + std::to_string(targetSize));
        Log("CopyOperator 1 Failed:Compare " + target);
        return false;
    }

    bool CopyFile(const std::string& source, const std::string& target) {
        if (Fails("fopen")) {
            Log("fopen_s 3 open file " + source + " errno " + std::to_string(fault_.error));
            Log("VCopyFile 3 Not Exist:srcFilename=" + source);
            return false;
        }
        const std::optional<int> refusal = RefusalToWrite(target);
        if (Fails("fopen") || refusal.has_value()) {
            const int error =
                fault_.call == "fopen" && count_ >= fault_.n && (count_ == fault_.n || fault_.isOnwards)
                    ? fault_.error
                    : *refusal;
            Log("fopen_s 3 open file " + target + " errno " + std::to_string(error));
            Log("VCopyFile 3 Not fopen_s:dstFilename=" + target);
            return false;
        }
        files_[target] = "";
        return CopyBlocks(files_.at(source), target);
    }

    // What stands against opening `target` for writing: a directory that is missing, or the root directory,
    // which is read-only where this runs.
    std::optional<int> RefusalToWrite(const std::string& target) const {
        const std::string directory = target.substr(0, target.rfind('/'));
        if (directory.empty()) return EROFS;
        if (!Has(directory)) return ENOENT;
        return std::nullopt;
    }

    bool CopyBlocks(const std::string& content, const std::string& target) {
        for (std::size_t at = 0;; at += 2048) {
            if (Fails("fread") || at >= content.size()) return true;
            const std::string block = content.substr(at, 2048);
            if (Fails("fwrite")) {
                Log("VCopyFile 1 ret=0,len=" + std::to_string(block.size()));
                return false;
            }
            files_[target] += block;
        }
    }

    // Opening goes to the end at once; asking where that is comes behind it.
    long FileSize(const std::string& path) {
        if (Fails("fopen64") || Fails("lseek64")) return -10000;
        return Fails("lseek64") ? -1 : static_cast<long>(files_.at(path).size());
    }

    const std::string pass_;
    const ModelPackage& package_;
    const Fault fault_;
    long count_ = 0;
    std::vector<std::string> log_;
    std::map<std::string, std::string> files_;
    std::vector<std::string> directories_;
};

}  // namespace

ModelOutcome RunModel(const std::string& pass, const ModelPackage& package, const Fault& fault) {
    return Run(pass, package, fault).Whole();
}
