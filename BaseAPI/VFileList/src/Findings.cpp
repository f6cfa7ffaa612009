// The table of findings. docs/findings.md and the manual page are made of it: after a change, run its test
// with VFILELIST_WRITE_FINDINGS=1.
#include "Findings.h"

#include <iterator>
#include <stdexcept>

namespace {

constexpr FindingKind kKinds[] = {
    {"E-INI-UNREADABLE", "the file list can't be read", "Every pass fails.",
     "Name the file list of the package, and make it readable."},
    {"E-TYPE-MISSING", "there is no install type",
     "The tool takes the keys before the first section for the directory list; when there are "
     "none, every pass fails.",
     "Set PackageIntallType in [Package_Intall_Type], both spelt exactly so."},
    {"E-TYPE-TOO-LONG", "the install type is longer than 259 bytes",
     "The tool takes it for missing: the keys before the first section are the directory list, and when "
     "there are none, every pass fails.",
     "Give the directory list a shorter name."},
    {"E-TYPE-UNKNOWN", "the install type names a section without keys",
     "There is no directory list, and every pass fails.",
     "Add the section, or name one that is there; names are case-sensitive."},
    {"E-DIR-TOO-LONG", "a target directory is longer than 259 bytes",
     "The tool takes \"/\" instead: the files of this list go into the root directory.",
     "Use a shorter path."},
    {"E-DIR-EMPTY", "a target directory is missing or empty",
     "The tool takes \"/\" instead: the files of this list go into the root directory.",
     "Write the directory behind the key, or remove the key."},
    {"E-TARGET-ROOT", "a target directory is the root directory",
     "The files of this list go into the root directory.", "Name the directory that is meant."},
    {"E-TARGET-RELATIVE", "a target directory is relative",
     "The files go below whatever directory the tool is started in.", "Write the absolute path."},
    {"E-DIR-NOT-DIRECTORY", "a target directory is something else",
     "-copy fails at the first file of this list.", "Name a directory, or clear the way for it."},
    {"E-LIST-TOO-LONG", "the value of a list's key is longer than 4095 bytes",
     "All three passes skip the whole key, and their result is still 0: none of its files is upgraded.",
     "Spread the entries over several keys."},
    {"E-ENTRY-EMPTY", "an entry has no file name",
     "-rename and -copy take the target directory for the file, fail and stop; -clean removes a file "
     "named \".bak\".",
     R"(Remove doubled commas, the comma at the end, and a '/' or "\.." at the end of an entry.)"},
    {"E-ENTRY-OUTSIDE", "an entry leaves the package's Common directory",
     "The tool copies whatever lies there on the server, or fails when nothing does.",
     "Put the file into Common and name it relative to that."},
    {"E-NAME-BAK", "a file name ends in \".bak\"",
     "It is taken for a backup: a backup overwrites it, or -clean removes it.",
     "Rename the file in the package."},
    {"E-NAME-TOO-LONG", "a file name or path is too long for its backup",
     "-rename fails on an installed file whose name has 252 to 255 bytes; longer names and paths of 4096 "
     "bytes and more can't be copied either.",
     "Use a shorter name."},
    {"E-DUPLICATE-NAME", "two files of the package go to the same target",
     "The later one overwrites the earlier one.",
     "Remove one, or give it another name or directory; the target has no subdirectories."},
    {"E-SOURCE-MISSING", "the package lacks a listed file",
     "-copy fails there and stops; what is listed behind it stays missing.",
     "Add the file to Common, or remove the entry."},
    {"E-SOURCE-UNREADABLE", "a file of the package can't be read", "-copy fails there and stops.",
     "Make it readable for the user who runs the upgrade."},
    {"E-SOURCE-NOT-REGULAR", "an entry is not a regular file",
     "A directory makes -copy fail or leaves an empty file; a named pipe makes it wait for ever.",
     "List files one by one."},
    {"E-TARGET-DIRECTORY", "a directory stands where the file goes",
     "-rename moves the whole directory to NAME.bak, and -clean fails on it unless it is empty.",
     "Use another file name, or have the directory removed first."},
    {"E-TARGET-DANGLING", "the target is a link that points nowhere",
     "-rename takes it for missing and makes no backup; -copy writes through it and makes what it points "
     "to, or fails where it can't.",
     "Remove the link first."},
    {"E-TARGET-SPECIAL", "the target is a device, pipe or socket",
     "-rename moves it away; the service that uses it loses it.", "Use another file name."},
    {"E-TARGET-IN-PACKAGE", "the target is the package's own file",
     "Without -rename, -copy copies the file onto itself and empties it; -rename may take it away from the "
     "package.",
     "Unpack the package elsewhere, or remove the link."},
    {"E-TARGET-TOOL", "the target is a program or library that the upgrade tool needs",
     "Once -rename has moved it, neither the tool nor vfilelist starts any more.",
     "Use `vfilelist upgrade`, which goes on without these files.", true},
    {"E-TARGET-LOCKED", "a target or its directory is immutable or append-only",
     "-rename fails there: operation not permitted.",
     "Take the attribute away (`chattr -i` or `chattr -a`) for the upgrade."},
    {"E-TARGET-MOUNT", "the target is a mount point", "-rename fails there: device or resource busy.",
     "Upgrade the file that is mounted there, as in a container's image, or unmount it first."},
    {"E-BACKUP-SAME-FILE", "NAME and NAME.bak are one file",
     "Of two hard links -rename moves none and reports success, and -copy overwrites both; a link "
     "NAME that leads to NAME.bak takes the place of the file in -rename. In both cases the old content "
     "is lost.",
     "Leave the file itself under NAME, and nothing under NAME.bak."},
    {"E-BACKUP-DIRECTORY", "NAME.bak is a directory",
     "-rename fails when there is a file NAME, and -clean fails unless the directory is empty.",
     "Move the directory away."},
    {"E-UPGRADE-UNFINISHED", "an upgrade has been begun and not been finished",
     "NAME holds what the package's file holds, or a beginning of it, beside a NAME.bak that differs: "
     "-rename would put the new file over the only copy of the old one.",
     "Finish the upgrade with -copy and -clean, or take it back with `vfilelist rollback`."},
    {"E-PACKAGE-UNSIGNED", "nobody who is trusted has signed the package",
     "`vfilelist upgrade` refuses it: this machine has a directory of trusted keys, or one was named.",
     "Ask the package's maker for a signed one, or put the maker's public key into that directory."},
    {"E-MANIFEST-INVALID", "the manifest can't be used",
     "`vfilelist upgrade` refuses the package: it can't tell what belongs to it.",
     "Make the package anew with `vfilelist make`; add the users and groups that it names."},
    {"E-MANIFEST-DIFFERS", "the package is not what its manifest says",
     "`vfilelist upgrade` refuses it: a file was changed, added or lost since it was made.",
     "Fetch the package again, or make it anew."},
    {"E-RELEASE-ORDER", "the release may not follow the one that is installed",
     "`vfilelist upgrade` refuses it.",
     "Install a newer release, or the ones between first. To go back to an older one, make it anew as a "
     "newer one."},
    {"E-RECEIPT-UNREADABLE", "the receipt of earlier upgrades can't be read",
     "`vfilelist upgrade` refuses the package: it can't tell which release is installed.",
     "Look at the file. If it is damaged, move it away: what was installed before is then unknown."},
    {"W-LIST-EMPTY", "a list has no entries", "Nothing is upgraded for it, and no pass says so.",
     "Add the section, check its spelling (names are case-sensitive), or remove the key."},
    {"W-ENTRY-BLANKS", "an entry has blanks around it",
     "They belong to the name: the tool looks for a file with these blanks.",
     "Write entries without blanks around the commas."},
    {"W-ENTRY-BACKSLASH", "an entry has backslashes",
     "In Common they are part of the file's name; on the target side only what follows the last one "
     "counts.",
     "Use '/'."},
    {"W-SOURCE-UNLISTED", "a file in Common is on no list", "It is not installed.",
     "List it, or leave it out of the package."},
    {"W-DUPLICATE-ENTRY", "a file is listed twice for the same target", "It is copied twice.",
     "Remove one of the entries."},
    {"W-NAME-LONG", "a file name leaves no room for \".bak\"",
     "The file is installed, but -rename of the next upgrade can't back it up and fails.",
     "Use a name of at most 251 bytes."},
    {"W-DIR-MADE", "-copy will make a directory",
     "It belongs to whoever runs -copy, with mode 0750 minus the umask: users outside its group can't "
     "enter it.",
     "Make it before the upgrade if it needs another mode or owner."},
    {"W-MODE-LOST", "a file's mode or owner will be lost",
     "-copy makes the new file with mode 0666 minus the umask, owned by whoever runs it.",
     "Use `vfilelist upgrade`, or run `vfilelist rollback --only-modes` after -copy and set the mode of "
     "files without a predecessor yourself.",
     true},
    {"W-ATTRIBUTES-LOST", "a file's capabilities, access control list or user attributes will be lost",
     "-copy makes the new file without extended attributes.",
     "Use `vfilelist upgrade`, or set them again after -copy (setcap, setfacl, setfattr).", true},
    {"W-TARGET-LINKED", "the target is a link, or has other hard links",
     "The passes replace this name alone: the file that the link leads to, and the other names, keep the "
     "old content.",
     "Name the file itself in the list, and make the links anew."},
    {"W-OTHERS-WRITE", "other users can write a target directory or the package",
     "They can replace files, backups and the list itself while the upgrade runs with your rights.",
     "Take write access away from everyone but root and yourself."},
    {"W-OLD-BACKUP", "an old NAME.bak is there",
     "-rename replaces it without a word. Until then vfilelist names no pass and puts no backup back.",
     "If the last upgrade is finished, remove it (`VCopyFileListIni -clean` of that upgrade)."},
    {"W-TARGET-BUSY", "a process executes or maps a target",
     "After -rename the process goes on with the old file until it is restarted; without -rename, -copy "
     "fails (text file busy) or changes the file under the process.",
     "Stop the services before the upgrade, or restart them after it."},
    {"W-INSTALLED-CHANGED", "an installed file was changed since its upgrade",
     "The upgrade replaces it, and the change is gone with the backup.",
     "Keep the change elsewhere, or bring it into the package."},
    {"W-SPACE", "there is too little free space, or too few free inodes",
     "The new files need theirs beside the backups: -copy fails when they run out.",
     "Make room on that file system."},
    {"W-TARGET-NOT-WRITABLE", "a target directory can't be written",
     "-rename and -copy fail there for this user.", "Run as root, or mount the file system writable."},
};

}  // namespace

const std::vector<FindingKind>& FindingKinds() {
    static const std::vector<FindingKind> kinds(std::begin(kKinds), std::end(kKinds));
    return kinds;
}

const FindingKind& KindOf(const std::string& code) {
    for (const FindingKind& kind : FindingKinds()) {
        if (code == kind.code) return kind;
    }
    throw std::logic_error("no finding has the code " + code);
}
