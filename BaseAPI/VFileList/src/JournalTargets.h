// The files of an upgrade, as its journal has them.
#ifndef VFILELIST_JOURNALTARGETS_H
#define VFILELIST_JOURNALTARGETS_H

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Attributes.h"
#include "Digest.h"
#include "Lines.h"

// A file that was there before the upgrade.
struct OldFile {
    bool isLink = false;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    Attributes attributes = {};  // of the file that a link leads to
};

// A file of the package.
struct NewFile {
    std::string source;
    off_t size = 0;
    mode_t mode = 0;
    Digest digest{};
    std::optional<Owner> owner = {};  // of a file without a predecessor, if the manifest tells
};

struct JournalTarget {
    std::string path;
    NewFile package;
    std::optional<OldFile> old;

    // What the new file shall have: those of its predecessor, or what the manifest says. Nothing where
    // neither tells: then it keeps its owner, and what its directory gave it.
    std::optional<Attributes> Wanted() const;
};

// Takes what the line that begins with the word `name` says of the target, which its first line names.
void ReadLine(std::string_view name, LineScanner& scanner, JournalTarget& target);
constexpr std::string_view kTargetLine = "target";  // the first word of that

// The targets in the order in which the passes visit them. A server may have hundreds of thousands, and a
// small memory: they are kept as their lines of the journal, less than 150 bytes each beside the paths,
// and read one by one.
class JournalTargets {
public:
    JournalTargets() = default;
    JournalTargets(std::initializer_list<JournalTarget> targets);

    void push_back(const JournalTarget& target);
    std::size_t size() const { return size_; }
    // All lines, each target's within one block.
    const std::vector<std::string>& blocks() const { return blocks_; }

    // Stands on one target, until the collection is changed.
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = JournalTarget;
        using difference_type = std::ptrdiff_t;
        using pointer = const JournalTarget*;
        using reference = const JournalTarget&;

        Iterator(const std::vector<std::string>& blocks, std::size_t block);

        reference operator*() const { return target_; }
        Iterator& operator++();
        bool operator==(const Iterator& other) const {
            return block_ == other.block_ && next_ == other.next_;
        }
        bool operator!=(const Iterator& other) const { return !(*this == other); }

    private:
        const std::vector<std::string>& blocks_;
        std::size_t block_;
        std::size_t next_ = 0;  // behind the target, in its block
        JournalTarget target_;
    };
    Iterator begin() const { return {blocks_, 0}; }
    Iterator end() const { return {blocks_, blocks_.size()}; }

private:
    std::vector<std::string> blocks_;  // each of them small, so that growing copies little
    std::size_t size_ = 0;
};

#endif
