// Making, removing and canonicalising directories, and changing their owners.
#include "VDir.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Constants.h"
#include "Directory.h"
#include "Log.h"
#include "safestr.h"
#include "VPath.h"

namespace {

// What realpath writes at most, and one byte more.
constexpr std::size_t kCanonicalCapacity = 4097;

bool StatSucceeds(const char* path) {
    struct stat status;
    return stat(path, &status) == 0;
}

// Makes every missing directory above the absolute `path`, whose slashes become NULs and slashes again.
// Returns 0, or -1 with the errno of mkdir.
int MakeParents(char* path, mode_t mode) {
    for (char* slash = std::strchr(path + 1, '/'); slash != nullptr; slash = std::strchr(slash + 1, '/')) {
        *slash = '\0';
        if (!StatSucceeds(path) && mkdir(path, mode) == -1) return -1;
        *slash = '/';
    }
    return 0;
}

// The entry of `userName`; null with the errno to log when there is none.
const passwd* FindUser(const char* userName) {
    // Null would crash the process in the platform's lookup.
    if (userName != nullptr) return getpwnam(userName);
    errno = ENOENT;
    return nullptr;
}

int ChangeOwner(const char* path, uid_t user, gid_t group) {
    if (lchown(path, user, group) == 0) return kSuccess;

    const int error = errno;
    VFS_LOG("VChownDirAndFirstDepthFiles", kLogError, "Failed to lchown to user, error:%d", error);
    return kFailure;
}

// True for directories, links to them included, and for entries whose stat fails, such as a dangling link.
bool IsDirectoryOrUnreachable(const char* path) {
    struct stat status;
    return stat(path, &status) == -1 || S_ISDIR(status.st_mode);
}

// The canonical text of `path` in `canonical`, a buffer of kCanonicalCapacity bytes; null with errno set when
// there is none.
const char* Canonicalise(const char* path, char* canonical) {
    // Setting the whole of a buffer can't fail.
    (void)memset_s(canonical, kCanonicalCapacity, 0, kCanonicalCapacity);
    return realpath(path, canonical);
}

}  // namespace

int VDir::VMkDir(const char* path, unsigned short mode) {
    char text[kPathCapacity];
    if (strcpy_s(text, sizeof(text), VPath(path).RealPath().text) != 0) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (text[0] == '\0') {
        errno = ENOENT;
        return -1;
    }

    struct stat status;
    if (stat(text, &status) == 0) {
        if (S_ISDIR(status.st_mode)) return 0;
        errno = EEXIST;
        return -1;
    }

    if (MakeParents(text, mode) == -1) return -1;
    // The parents may have completed the path: x/y/.. is there once x/y is.
    return StatSucceeds(text) ? 0 : mkdir(text, mode);
}

int VDir::VRmDir(const char* path) {
    // Unlike realpath's, the platform's own answer to null is undefined here.
    return rmdir(TextOrEmpty(path));
}

int VDir::VChownDirAndFirstDepthFiles(const char* dirPath, const char* userName) {
    const passwd* const user = FindUser(userName);
    if (user == nullptr) {
        const int error = errno;
        VFS_LOG("VChownDirAndFirstDepthFiles", kLogError, "Can't get user name id, errno: %d", error);
        return kFailure;
    }
    const uid_t userId = user->pw_uid;
    const gid_t groupId = user->pw_gid;

    const char* const directory = TextOrEmpty(dirPath);
    if (ChangeOwner(directory, userId, groupId) != kSuccess) return kFailure;

    const DirHandle dir(opendir(directory));
    if (!dir) {
        VFS_LOG("VChownDirAndFirstDepthFiles", kLogError, "Failed open dir,path=%s", directory);
        return kFailure;
    }
    while (const dirent* const entry = readdir(dir.get())) {
        if (IsSelfOrParent(entry->d_name)) continue;
        const std::string entryPath = std::string(directory) + "/" + entry->d_name;
        if (IsDirectoryOrUnreachable(entryPath.c_str())) continue;
        if (ChangeOwner(entryPath.c_str(), userId, groupId) != kSuccess) return kFailure;
    }
    return kSuccess;
}

bool VDir::VRealPath(const char* path, int length) {
    if (length > static_cast<int>(kPathCapacity)) return false;

    char canonical[kCanonicalCapacity];
    return Canonicalise(path, canonical) != nullptr || errno == ENOENT;
}

bool VDir::VRealPath(const std::string& input, std::string& output) {
    char canonical[kCanonicalCapacity];
    if (Canonicalise(input.c_str(), canonical) != nullptr) {
        output = canonical;
        return true;
    }
    if (errno != ENOENT) return false;

    output = input;
    return true;
}
