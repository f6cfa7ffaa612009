// Where the journal of the open upgrade lives, and how far that upgrade has come. Whatever is written here is
// on the disk when the call returns.
#ifndef VFILELIST_STATEDIRECTORY_H
#define VFILELIST_STATEDIRECTORY_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Files.h"
#include "Journal.h"
#include "Receipt.h"
#include "Trouble.h"

constexpr char kUsualStateDirectory[] = "/var/lib/vfilelist";

// What may have begun. Everything between two of them can be done again from its beginning.
enum class Phase {
    kNone,       // nothing is open
    kRenaming,   // -rename
    kCopying,    // -copy, and what follows it up to kInstalled
    kInstalled,  // all of NEW is in place and verified, the backups are there
    kUndoing,    // from here only back
    kCleaning,   // -clean: from here only forward
};

struct State {
    Phase phase = Phase::kNone;
    Phase undone = Phase::kNone;  // with kUndoing: the phase that is taken back
};

const char* NameOf(Phase phase);

class StateDirectory {
public:
    explicit StateDirectory(std::string path) : path_(std::move(path)) {}

    const std::string& path() const { return path_; }

    // Makes the directory when it is missing, and keeps other processes of vfilelist out for as long as this
    // process, or one that it forks, lives.
    Trouble Enter();
    // Whether another process has entered it.
    bool IsOccupied() const;

    // Reads what is open; the journal is untouched when nothing is.
    Trouble Read(State& state, Journal& journal);

    // Keeps the text of the list for the passes, and a link to the package's Common, beside which they look
    // for it: whoever can write the package can't change the list under them. Nothing but -clean needs it
    // later, and that can do without.
    Trouble KeepList(const std::string& text, const std::string& common) const;
    std::string ListPath() const { return FileName("package/filelist.ini"); }

    Trouble Begin(const Journal& journal);
    Trouble Write(const State& state);
    Trouble Close();

    // What was installed before; nothing when there is no receipt.
    Trouble ReadReceipt(Receipt& receipt) const;
    Trouble WriteReceipt(const Receipt& receipt) const;

    // Copies this program, and those of its libraries that the copy would not find: the upgrade will move
    // them, or the program's run path leads to them.
    Trouble KeepRescue(const Journal& journal);

private:
    std::string FileName(const char* name) const { return path_ + "/" + name; }
    Trouble WriteDurably(const char* name, const std::vector<std::string_view>& blocks) const;

    const std::string path_;
    Digest journalDigest_{};
    std::optional<Descriptor> lock_;
};

#endif
