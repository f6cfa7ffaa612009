// The upgrade file-list tool's module: the file list as the tool reads it, and the three passes over it.
#ifndef VFILESYS_VCOPYFILELISTINI_H
#define VFILESYS_VCOPYFILELISTINI_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

// From the name of a file-list section to its target directory, which ends in '/'. The passes visit the lists
// in this byte-wise order, not in the order of the file.
using DirectoryMap = std::map<std::string, std::string>;

// The buffers that values are read into, with their terminating NUL.
constexpr std::size_t kDirectoryValueCapacity = 260;
constexpr std::size_t kListValueCapacity = 4096;

constexpr char kBackupSuffix[] = ".bak";

// Where a file list names its install type, in the format's spelling.
constexpr char kInstallTypeSection[] = "Package_Intall_Type";
constexpr char kInstallTypeKey[] = "PackageIntallType";

// The value of a key of at most 259 bytes; the empty text when it is missing, longer or unreadable.
std::string ReadIniValue(std::string section, std::string key, std::string iniPath);

// Appends the pieces of `text` between the delimiters to `out`, empty ones included, nothing trimmed. With an
// empty delimiter the whole text is one piece, if it is not empty.
void SplitString(std::string text, std::string delimiter, std::vector<std::string>& out);

// What follows the last '/' or backslash of `path`.
std::string GetFileName(std::string path);

// Appends the entries of one key of a file-list section to `out`. A value of more than 4095 bytes counts as
// missing.
void GetKeyItemList(const std::string& section, const std::string& key, const std::string& iniPath,
                    std::vector<std::string>& out);

// Appends the entries of all keys of a file-list section to `out`, key by key in byte-wise order.
void GetSectionItemList(std::string section, std::string iniPath, std::vector<std::string>& out);

// The package's install type, which names its directory-list section; the empty text when there is none.
std::string ReadInstallType(std::string iniPath);

// The package's directory of new files, which lies beside the file list; ends in '/'.
std::string SourceDirectory(const std::string& iniPath);

// The directory map of a directory-list section. A directory that is missing, can't be read or is longer than
// 259 bytes becomes "/".
DirectoryMap GetPathKeyAndValue(std::string section, std::string iniPath);

// Replaces `out` by the directory map of the package's install type. Returns 0, or -10000 when it is empty.
int GetPathSectionMap(DirectoryMap& out, std::string iniPath);

// The passes. Each stops at its first failure. They return 0 or -10000.
int RenameOperator(std::string iniPath);
int CopyOperator(std::string iniPath);
int CleanOperator(std::string iniPath);

#endif
