// Joins a name that comes from outside to a base directory, and refuses what would leave it.
//
//     c++ -std=c++17 -o CanonicalPath CanonicalPath.cpp $(pkg-config --cflags --libs VFileSys)
//     CanonicalPath /srv/files reports/../summary.txt      prints /srv/files/summary.txt
//     CanonicalPath /srv/files ../../etc/passwd            fails
#include <cstdio>
#include <cstring>
#include <string>

#include "VPath.h"

namespace {

// True when `path` lies below `base`; both are canonical texts. The check is on texts alone: links in the
// tree could still lead out of it.
bool IsBelow(const char* path, const char* base) {
    const std::size_t length = std::strlen(base);
    if (length == 1) return true;  // everything is below "/"
    return std::strncmp(path, base, length) == 0 && path[length] == '/';
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s BASE NAME\n", argv[0]);
        return 2;
    }

    const VPath base(argv[1]);
    const VPath joined = base + argv[2];

    // A text is good only while its VPath lives, so the paths are kept in variables of their own.
    const PathText baseText = base.RealPath();
    const PathText text = joined.RealPath();
    if (text.text[0] == '\0') {
        std::fprintf(stderr, "%s: not a path that fits\n", argv[2]);
        return 1;
    }
    // The last component is never resolved, so ".." may still stand there.
    const std::string lastName = joined.BaseName().text;
    if (!IsBelow(text.text, baseText.text) || lastName == ".." || lastName == ".") {
        std::fprintf(stderr, "%s: leads out of %s\n", argv[2], baseText.text);
        return 1;
    }

    std::printf("%s\n", text.text);
    return 0;
}
