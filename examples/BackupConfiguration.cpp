// Packs a configuration directory into an archive, and believes in the archive only after a look at it.
//
// The library's archive functions hand their arguments to /bin/sh as they are, and call it a success when a
// file of the archive's name exists afterwards. So this program lets only harmless names through, clears what
// could change tar's behaviour from outside, removes an old archive first, and tests the new one.
//
//     BackupConfiguration /etc/app /var/backups/app          makes /var/backups/app.tar.gz
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "VCompressAndDeCompress.h"
#include "VPath.h"

namespace {

// Letters, digits and a few signs that mean nothing to a shell or to tar; no '-' at the begin, no blank.
bool IsHarmless(const std::string& path) {
    const char* const allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
    return !path.empty() && path[0] == '/' && path.find_first_not_of(allowed) == std::string::npos;
}

bool IsWhole(const std::string& archive) {
    const std::string command = "tar -tzf " + archive + " > /dev/null 2>&1";
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
    const std::string archive = archiveBase + ".tar.gz";
    if (!IsHarmless(directory) || !IsHarmless(archiveBase) || !VPath::FileExist(directory.c_str())) {
        std::fprintf(stderr, "these paths are not for the shell\n");
        return 1;
    }

    unsetenv("TAR_OPTIONS");
    (void)unlink(archive.c_str());
    const int status = VCompressAndDeCompress::CompressFileGroup(directory.c_str(), archiveBase.c_str());
    if (status != 0 || !IsWhole(archive)) {
        std::fprintf(stderr, "%s: no archive could be made\n", archive.c_str());
        return 1;
    }

    std::printf("%s\n", archive.c_str());
    return 0;
}
