// Packs a configuration directory into an archive, and believes in the archive only after a look at it.
//
// The library's archive functions hand their arguments to /bin/sh as they are, and call it a success when a
// file of the archive's name exists afterwards. So this program lets only harmless names through, clears what
// could change tar's behaviour from outside, packs under a new name, tests the result, and only then puts it
// in the place of an older archive. (tar leaves out what it may not read; run as a user who may read all.)
//
//     c++ -std=c++17 -o BackupConfiguration BackupConfiguration.cpp $(pkg-config --cflags --libs VFileSys)
//     BackupConfiguration /etc/app /var/backups/app          makes /var/backups/app.tar.gz
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "VCompressAndDeCompress.h"
#include "VPath.h"

namespace {

// Letters, digits and a few signs that mean nothing to a shell or to tar; no '-' at the begin, no blank.
bool IsHarmless(const std::string& path) {
    const char* const allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
    return !path.empty() && path[0] == '/' && path.find_first_not_of(allowed) == std::string::npos;
}

// Reads the archive to its end and compares it with the files that it was made of.
bool IsTrue(const std::string& archive) {
    const std::string command = "tar -dzf " + archive + " -C / > /dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DIRECTORY ARCHIVE_WITHOUT_SUFFIX\n", argv[0]);
        return 2;
    }
    const std::string directory = VPath(argv[1]).RealPath().text;
    const std::string archiveBase = VPath(argv[2]).RealPath().text;
    if (!IsHarmless(directory) || !IsHarmless(archiveBase) || !VPath::FileExist(directory.c_str())) {
        std::fprintf(stderr, "these paths are not for the shell\n");
        return 1;
    }

    unsetenv("TAR_OPTIONS");
    setenv("PATH", "/usr/bin:/bin", 1);
    const std::string newBase = archiveBase + ".new." + std::to_string(getpid());
    const std::string newArchive = newBase + ".tar.gz";
    const std::string archive = archiveBase + ".tar.gz";
    const int status = VCompressAndDeCompress::CompressFileGroup(directory.c_str(), newBase.c_str());
    if (status != 0 || !IsTrue(newArchive) || std::rename(newArchive.c_str(), archive.c_str()) != 0) {
        std::fprintf(stderr, "%s could not be made\n", archive.c_str());
        (void)unlink(newArchive.c_str());
        return 1;
    }

    std::printf("%s\n", archive.c_str());
    return 0;
}
