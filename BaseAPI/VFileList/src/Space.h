// Whether the file systems have room for what is to be copied.
#ifndef VFILELIST_SPACE_H
#define VFILELIST_SPACE_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

struct Shortage {
    std::string directory;  // one on that file system
    std::string detail;     // what is needed and what is free
};

class SpaceNeed {
public:
    // A file of `size` bytes is going to be made in the directory, which need not be there yet.
    void AddFile(const std::string& directory, off_t size);

    std::vector<Shortage> Shortages() const;

private:
    struct Need {
        unsigned long long bytes = 0;
        unsigned long long files = 0;
        std::string directory;
    };

    std::map<dev_t, Need> needs_;
};

#endif
