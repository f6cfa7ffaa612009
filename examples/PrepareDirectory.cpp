// Makes the directory of a service with all its parents, and hands it and the files directly in it to a user.
//
//     c++ -std=c++17 -o PrepareDirectory PrepareDirectory.cpp $(pkg-config --cflags --libs VFileSys)
//     PrepareDirectory /var/lib/app/cache appuser
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "VDir.h"

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DIRECTORY USER\n", argv[0]);
        return 2;
    }
    const char* const directory = argv[1];

    // When another process makes the same parents at this moment, the first try may end with EEXIST.
    int status = VDir::VMkDir(directory, 0750);
    if (status != 0 && errno == EEXIST) status = VDir::VMkDir(directory, 0750);
    if (status != 0) {
        std::fprintf(stderr, "%s: %s\n", directory, std::strerror(errno));
        return 1;
    }

    // Only while the user can't write to the directory yet: between the library's look at an entry and the
    // change of its owner, the user could put another file in its place.
    if (VDir::VChownDirAndFirstDepthFiles(directory, argv[2]) != 0) {
        std::fprintf(stderr, "%s: can't be handed to %s; the log says why\n", directory, argv[2]);
        return 1;
    }

    std::printf("%s is ready for %s\n", directory, argv[2]);
    return 0;
}
