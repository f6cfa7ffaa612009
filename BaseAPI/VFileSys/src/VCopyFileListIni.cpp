// The upgrade file-list tool: reads the file list of an upgrade package, and backs up (-rename), replaces
// (-copy) and cleans (-clean) the installed files that it names.
#include "VCopyFileListIni.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <set>

#include "Constants.h"
#include "Log.h"
#include "VDir.h"
#include "VFile.h"
#include "VIni.h"

namespace {

const std::string kSeparator = "/";
const std::string kCommonDirectory = "Common";
const std::string kLogDirectory = "/var/log/tarnlog/serverlog/upgradelog/node/";

constexpr unsigned short kTargetDirectoryMode = 0750;

constexpr int kNothingToRename = -9996;

bool IsAccessible(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Calls `handleList` with the target directory and the entries of each list until one fails. The log lines
// carry the name of the pass.
template <typename HandleList>
int ForEachList(const char* pass, const std::string& iniPath, HandleList handleList) {
    DirectoryMap directories;
    if (GetPathSectionMap(directories, iniPath) == kFailure) {
        VFS_LOG(pass, kLogError, "Get GetPathSectionMap fail");
        return kFailure;
    }

    for (const auto& [section, targetDir] : directories) {
        VFS_LOG(pass, kLogInfo, "%s , %s", section.c_str(), targetDir.c_str());
        std::vector<std::string> entries;
        GetSectionItemList(section, iniPath, entries);
        if (handleList(targetDir, entries) != kSuccess) return kFailure;
    }
    return kSuccess;
}

int RenameFile(const std::string& target, const std::string& backup) {
    if (!IsAccessible(target)) return kNothingToRename;

    if (rename(target.c_str(), backup.c_str()) != 0) {
        VFS_LOG("RenameFile", kLogError, "Failed:rename %s, %s", target.c_str(), backup.c_str());
        return kFailure;
    }
    VFS_LOG("RenameFile", kLogInfo, "rename: %s, %s", target.c_str(), backup.c_str());
    return kSuccess;
}

// Backs up the installed file that stands for the entry, if there is one.
int RenameEntry(const std::string& target, std::set<std::string>& backups) {
    const std::string backup = target + kBackupSuffix;
    VFS_LOG("RenameOperator", kLogInfo, "%s ", target.c_str());
    const int status = RenameFile(target, backup);
    if (status == kSuccess) backups.insert(backup);
    return status == kFailure ? kFailure : kSuccess;
}

int CopyFile(const std::string& source, const std::string& destination) {
    if (!IsAccessible(source)) {
        VFS_LOG("CopyFile", kLogError, "Does Not Exist:%s", source.c_str());
        return kFailure;
    }
    if (VFile::VCopyFile(source.c_str(), destination.c_str()) != 0) {
        VFS_LOG("CopyFile", kLogError, "Failed:copy %s, %s", source.c_str(), destination.c_str());
        return kFailure;
    }
    VFS_LOG("CopyFile", kLogInfo, "copy: %s, %s", source.c_str(), destination.c_str());
    return kSuccess;
}

int CompareFileSizes(const std::string& source, const std::string& destination) {
    const long inSize = VFile::FileSize(source.c_str());
    const long outSize = VFile::FileSize(destination.c_str());
    if (inSize == outSize) return kSuccess;

    // The comma is the full-width one; log readers know the line by it. The sizes are logged as int.
    VFS_LOG("CompareFileSizes", kLogError, "inFileSize:%d，outFileSize:%d", static_cast<int>(inSize),
            static_cast<int>(outSize));
    return kFailure;
}

int CopyEntry(const std::string& source, const std::string& destination) {
    VFS_LOG("CopyOperator", kLogInfo, "%s , %s", source.c_str(), destination.c_str());
    if (CopyFile(source, destination) != kSuccess) return kFailure;
    if (CompareFileSizes(source, destination) != kSuccess) {
        VFS_LOG("CopyOperator", kLogError, "Failed:Compare %s", destination.c_str());
        return kFailure;
    }
    return kSuccess;
}

// Removes the backup if it is there.
int CleanEntry(const std::string& backup) {
    VFS_LOG("CleanOperator", kLogInfo, "%s ", backup.c_str());
    if (!IsAccessible(backup)) return kSuccess;

    if (static_cast<int>(VFile::RemoveFile(backup.c_str())) == kFailure) {
        VFS_LOG("CleanOperator", kLogError, "Failed:RemoveFile %s", backup.c_str());
        return kFailure;
    }
    VFS_LOG("CleanOperator", kLogInfo, "RemoveFile:%s ", backup.c_str());
    return kSuccess;
}

void LogUsage(const char* program) {
    VFS_LOG("main", kLogInfo, "Usage: %s <operator> <filelist.ini path>", program);
    VFS_LOG("main", kLogInfo, "<operator>: -rename/-copy/-clean");
}

int RunOperator(const std::string& operatorName, const std::string& iniPath) {
    if (operatorName == "-rename") return RenameOperator(iniPath);
    if (operatorName == "-copy") return CopyOperator(iniPath);
    if (operatorName == "-clean") return CleanOperator(iniPath);

    VFS_LOG("main", kLogInfo, "[error] Wrong Operator = %s", operatorName.c_str());
    return kFailure;
}

void LogBanner(int result) {
    VFS_LOG("main", kLogInfo, "---------------------------------------------------");
    if (result == kSuccess) {
        VFS_LOG("main", kLogInfo, "            Successfully completed");
    } else {
        VFS_LOG("main", kLogInfo, "            Failed");
    }
}

// A run that an exception cuts short, for lack of memory above all, is a failed run like any other; the cause
// has no line in the log, so it goes to standard error.
template <typename Step>
int RunSafely(Step step) {
    try {
        return step();
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "VCopyFileListIni: %s\n", error.what());
    } catch (...) {
        (void)fprintf(stderr, "VCopyFileListIni: unknown exception\n");
    }
    return kFailure;
}

// What runs between the log's start and its end.
int Run(int argc, char* argv[]) {
    if (argc < 3) {
        LogUsage(argc > 0 ? argv[0] : "");
        return kFailure;
    }
    const int result = RunSafely([argv] { return RunOperator(argv[1], argv[2]); });
    LogBanner(result);
    return result;
}

// Calls the INI reader with a buffer of zero bytes. Whatever the reader does with a value that does not fit,
// the text ends within the buffer.
template <std::size_t capacity>
int ReadInto(char (&value)[capacity], const std::string& section, const std::string& key,
             const std::string& iniPath) {
    const int status = VIni::IniGetString(section.c_str(), key.c_str(), "", value, capacity, iniPath.c_str());
    value[capacity - 1] = '\0';
    return status;
}

}  // namespace

std::string ReadIniValue(std::string section, std::string key, std::string iniPath) {
    char value[kDirectoryValueCapacity] = {};
    return ReadInto(value, section, key, iniPath) == 0 ? value : "";
}

void SplitString(std::string text, std::string delimiter, std::vector<std::string>& out) {
    // An empty delimiter matches everywhere and would never advance: there is nothing to split at.
    if (delimiter.empty()) {
        if (!text.empty()) out.push_back(text);
        return;
    }

    text += delimiter;  // ends the last piece like every other
    std::size_t begin = 0;
    std::size_t end = text.find(delimiter);
    while (end != std::string::npos) {
        out.push_back(text.substr(begin, end - begin));
        begin = end + delimiter.length();
        end = text.find(delimiter, begin);
    }
}

std::string GetFileName(std::string path) {
    std::replace(path.begin(), path.end(), '\\', '/');
    return path.substr(path.rfind('/') + 1);
}

void GetKeyItemList(const std::string& section, const std::string& key, const std::string& iniPath,
                    std::vector<std::string>& out) {
    char value[kListValueCapacity] = {};
    // Deliberately unchecked: what the buffer holds counts. A reader that finds nothing, or nothing that
    // fits, leaves it empty, and the key is skipped.
    (void)ReadInto(value, section, key, iniPath);
    if (value[0] != '\0') SplitString(value, ",", out);
}

void GetSectionItemList(std::string section, std::string iniPath, std::vector<std::string>& out) {
    std::set<std::string> keys;
    (void)VIni::IniGetStringItems(section.c_str(), keys, iniPath.c_str());  // the set tells what was found
    for (const std::string& key : keys) GetKeyItemList(section, key, iniPath, out);
}

std::string ReadInstallType(std::string iniPath) {
    return ReadIniValue(kInstallTypeSection, kInstallTypeKey, iniPath);
}

std::string SourceDirectory(const std::string& iniPath) {
    return iniPath.substr(0, iniPath.rfind('/') + 1) + kCommonDirectory + kSeparator;
}

DirectoryMap GetPathKeyAndValue(std::string section, std::string iniPath) {
    DirectoryMap directories;
    std::set<std::string> keys;
    (void)VIni::IniGetStringItems(section.c_str(), keys, iniPath.c_str());  // the set tells what was found
    if (keys.empty()) {
        VFS_LOG("GetPathKeyAndValue", kLogError, "Get path list fail");
        return directories;
    }

    for (const std::string& key : keys) {
        std::string directory = ReadIniValue(section, key, iniPath);
        if (directory.empty() || directory.back() != '/') directory += kSeparator;
        // Deliberately after the '/' is there, and so never true: a key without a directory means "/".
        if (directory.empty()) {
            VFS_LOG("GetPathKeyAndValue", kLogError, "%s valua is null", key.c_str());
            break;
        }
        directories[key] = directory;
    }
    return directories;
}

int GetPathSectionMap(DirectoryMap& out, std::string iniPath) {
    const std::string installType = ReadInstallType(iniPath);
    VFS_LOG("GetPathSectionMap", kLogInfo, "PackageIntallType : %s", installType.c_str());
    out = GetPathKeyAndValue(installType, iniPath);
    if (!out.empty()) return kSuccess;

    VFS_LOG("GetPathSectionMap", kLogError, "Get path list fail");
    return kFailure;
}

int RenameOperator(std::string iniPath) {
    // What this run has moved away so far. Nothing reads it; it is there for inspection, in a core file say.
    std::set<std::string> backups;
    return ForEachList("RenameOperator", iniPath, [&backups](const auto& targetDir, const auto& entries) {
        for (const std::string& entry : entries) {
            if (RenameEntry(targetDir + GetFileName(entry), backups) != kSuccess) return kFailure;
        }
        return kSuccess;
    });
}

int CopyOperator(std::string iniPath) {
    const std::string sourceDir = SourceDirectory(iniPath);
    return ForEachList("CopyOperator", iniPath, [&sourceDir](const auto& targetDir, const auto& entries) {
        // A directory that can't be made shows up as a copy that fails.
        if (!IsAccessible(targetDir)) (void)VDir::VMkDir(targetDir.c_str(), kTargetDirectoryMode);
        for (const std::string& entry : entries) {
            if (CopyEntry(sourceDir + entry, targetDir + GetFileName(entry)) != kSuccess) return kFailure;
        }
        return kSuccess;
    });
}

int CleanOperator(std::string iniPath) {
    return ForEachList("CleanOperator", iniPath, [](const auto& targetDir, const auto& entries) {
        for (const std::string& entry : entries) {
            if (CleanEntry(targetDir + GetFileName(entry) + kBackupSuffix) != kSuccess) return kFailure;
        }
        return kSuccess;
    });
}

int main(int argc, char* argv[]) {
    const int result = RunSafely([argc, argv] {
        // The numbers are the logger's: three files kept, full detail, information, 2 MiB a file, file only.
        VLogger::GetInstance()->StartSystem("TarnFramework_upgrade.log", kLogDirectory.c_str(), 3, 2,
                                            kLogInfo, 2048, false);
        return Run(argc, argv);
    });
    // By now the run has its result, and the log says which.
    (void)RunSafely([] {
        VLogger::GetInstance()->StopSystem();
        return kSuccess;
    });
    return result;
}
