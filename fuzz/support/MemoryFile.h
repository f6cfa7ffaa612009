// A file that has a path but lies in memory alone: nothing is left behind, however the program ends.
#ifndef FUZZ_SUPPORT_MEMORYFILE_H
#define FUZZ_SUPPORT_MEMORYFILE_H

#include <string>

class MemoryFile {
public:
    MemoryFile();
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    // The path is kDirectory, '/' and the name.
    static constexpr char kDirectory[] = "/proc/self/fd";
    std::string Name() const { return std::to_string(fd_); }
    std::string Path() const { return kDirectory + ("/" + Name()); }

    // Replaces the content.
    void Write(const std::string& content) const;
    std::string Read() const;

private:
    int fd_;
};

#endif
