#include "Resources.h"

#include <dirent.h>

#include <cctype>

int OpenDescriptors() {
    int count = 0;
    DIR* const dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    while (const dirent* const entry = readdir(dir)) {
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0) ++count;
    }
    closedir(dir);
    return count - 1;  // the stream that counts
}
