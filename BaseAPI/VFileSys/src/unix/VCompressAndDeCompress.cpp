// .tar.gz archives, packed by the system's tar through a guarded shell command.
#include "VCompressAndDeCompress.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Constants.h"
#include "Log.h"
#include "PipeStream.h"

namespace {

const char kPackCommand[] = "tar -zcvf ";
const char kArchiveSuffix[] = ".tar.gz";

bool HasRefusedSequence(const char* cmd) {
    return std::strpbrk(cmd, ";|$`") != nullptr || std::strstr(cmd, "&&") != nullptr;
}

// Reads the command's output to its end: a command that prints more than a pipe holds would otherwise wait
// for ever in write().
void Drain(FILE* output) {
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, output) != -1) {
    }
    std::free(line);
}

int Compress(const char* cmd, const char* archivePath) {
    if (HasRefusedSequence(cmd)) {
        VFS_LOG("Compress", kLogInfo, "not support \";\" or \"|\" or \"&&\" in cmd, cmd = %s\n", cmd);
        return kFailure;
    }

    PipeStream command(cmd);
    if (!command) return kFailure;
    Drain(command.Get());
    (void)command.Close();

    // Deliberate, and promised by the header: the archive's existence decides, not how the command ended.
    struct stat status;
    return stat(archivePath, &status) == 0 ? kSuccess : kFailure;
}

// Logs and runs the command that packs `sources` into `archive`.
int Pack(const char* function, const std::string& archive, const std::string& sources) {
    const std::string command = kPackCommand + archive + " " + sources;
    VFS_LOG(function, kLogInfo, "command %s", command.c_str());
    return Compress(command.c_str(), archive.c_str());
}

std::string LastComponent(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

int VCompressAndDeCompress::CompressFile(const char* path) {
    const std::string source(path);
    return Pack("CompressFile", source + kArchiveSuffix, source);
}

int VCompressAndDeCompress::CompressFilePath(const char* path) {
    const std::string directory(path);
    // Promised by the header: an empty path has no last character, and throws here.
    const bool endsInSlash = directory.substr(directory.length() - 1) == "/";
    const std::string prefix = endsInSlash ? directory : directory + "/";
    const std::string name =
        LastComponent(endsInSlash ? directory.substr(0, directory.length() - 1) : directory);
    return Pack("CompressFilePath", prefix + name + kArchiveSuffix, directory);
}

int VCompressAndDeCompress::CompressFileGroup(const char* files, const char* archiveBase) {
    return Pack("CompressFileGroup", std::string(archiveBase) + kArchiveSuffix, std::string(files));
}
