// Reading a file list of N keys through VIni, as the upgrade tool reads it, beside the parser below it called
// directly. The cost of a key must not depend on N.
#include "VIni.h"

#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <set>
#include <string>

#define SI_NO_CONVERSION
#include <SimpleIni.h>

#include "Rows.h"
#include "Scratch.h"

namespace {

constexpr char kSection[] = "BinFiles";
constexpr std::size_t kListValueCapacity = 4096;

// Two equal file lists. Read in turn, each reading begins with a parse, since VIni keeps the last file's
// alone.
class FileLists {
public:
    explicit FileLists(int keyCount) : keyCount_(static_cast<std::size_t>(keyCount)) {
        std::string text = std::string("[") + kSection + "]\n";
        for (int i = 0; i < keyCount; ++i) {
            const std::string number = std::to_string(i);
            text += "f" + number + "=bin/tool" + number + ",bin/helper" + number + "\n";
        }
        for (std::size_t i = 0; i < paths_.size(); ++i) {
            paths_[i] = DiskDirectory() + "/" + std::to_string(keyCount) + "-" + std::to_string(i) + ".ini";
            WriteFile(paths_[i], text);
        }
    }

    const char* Next() { return paths_[turn_++ % paths_.size()].c_str(); }
    std::size_t KeyCount() const { return keyCount_; }

private:
    std::size_t keyCount_;
    std::array<std::string, 2> paths_;
    std::size_t turn_ = 0;
};

void ReadThroughVIni(FileLists& lists) {
    const char* const path = lists.Next();
    std::array<char, kListValueCapacity> value;
    std::set<std::string> keys;
    (void)VIni::IniGetStringItems(kSection, keys, path);
    std::size_t found = 0;
    for (const std::string& key : keys) {
        const int status =
            VIni::IniGetString(kSection, key.c_str(), "", value.data(), static_cast<int>(value.size()), path);
        if (status == 0) ++found;
        benchmark::DoNotOptimize(value.data());
    }
    if (found != lists.KeyCount()) std::abort();
}

// With `looks` it notices each change of the file, as VIni has to.
void ReadThroughSimpleIni(FileLists& lists, bool looks) {
    CSimpleIniCaseA ini;
    const char* const path = lists.Next();
    (void)ini.LoadFile(path);
    CSimpleIniCaseA::TNamesDepend keys;
    (void)ini.GetAllKeys(kSection, keys);
    std::size_t found = 0;
    for (const CSimpleIniCaseA::Entry& key : keys) {
        struct stat status;
        if (looks && stat(path, &status) != 0) std::abort();
        const char* const value = ini.GetValue(kSection, key.pItem);
        if (value != nullptr) ++found;
        benchmark::DoNotOptimize(value);
    }
    if (found != lists.KeyCount()) std::abort();
}

[[maybe_unused]] const bool kRows = [] {
    for (const int keyCount : {10, 100, 1000, 10000}) {
        FileLists lists(keyCount);
        AddRow("VIni", "file list of " + std::to_string(keyCount) + " keys")
            .Ours([lists]() mutable { ReadThroughVIni(lists); })
            .Beside("SimpleIni, parsed once", keyCount == 10 ? 0 : 1.8,
                    [lists]() mutable { ReadThroughSimpleIni(lists, false); })
            .Beside("the same, and one stat a key", 0,
                    [lists]() mutable { ReadThroughSimpleIni(lists, true); })
            .Growing("file list, keys", keyCount);
    }
    return true;
}();

}  // namespace
