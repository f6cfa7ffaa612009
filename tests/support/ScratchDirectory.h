// A directory of the test's own, removed with all in it when the test ends.
#ifndef TESTS_SUPPORT_SCRATCHDIRECTORY_H
#define TESTS_SUPPORT_SCRATCHDIRECTORY_H

#include <string>
#include <vector>

class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    // The absolute, canonical path of the directory, or of `name` in it.
    const std::string& Path() const { return path_; }
    std::string Path(const std::string& name) const { return path_ + "/" + name; }

    // Each makes what is missing above `name` and returns the path.
    std::string Write(const std::string& name, const std::string& content) const;
    std::string MakeDirectory(const std::string& name) const;
    std::string Link(const std::string& name, const std::string& target) const;

    std::string Read(const std::string& name) const;
    bool Has(const std::string& name) const;
    // The names in the directory `name`, sorted.
    std::vector<std::string> List(const std::string& name = ".") const;

private:
    std::string path_;
};

// Changes the process's working directory for as long as it lives.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::string& path);
    ~WorkingDirectory();
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    int old_;
};

std::string ReadWholeFile(const std::string& path);

#endif
