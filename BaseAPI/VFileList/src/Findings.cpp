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
     "The tool uses the keys before the first section as the directory list. If there are none, every "
     "pass fails.",
     "Set PackageIntallType in [Package_Intall_Type], both spelt exactly so."},
    {"E-TYPE-TOO-LONG", "the install type is longer than 259 bytes",
     "The tool uses the keys before the first section as the directory list. If there are none, every "
     "pass fails.",
     "Give the section of the directory list a shorter name."},
    {"E-TYPE-UNKNOWN", "the install type names a section without keys",
     "There is no directory list, and every pass fails.",
     "Add the section, or name an existing one. Names are case-sensitive."},
    {"E-DIR-TOO-LONG", "a target directory is longer than 259 bytes",
     "The tool uses \"/\" instead: the files of this list go into the root directory.",
     "Use a shorter path."},
    {"E-DIR-EMPTY", "a target directory is missing or empty",
     "The tool uses \"/\" instead: the files of this list go into the root directory.",
     "Give the key a directory, or remove the key."},
    {"E-TARGET-ROOT", "a target directory is the root directory",
     "The files of this list go into the root directory.", "Name the right directory."},
    {"E-TARGET-RELATIVE", "a target directory is relative",
     "The files go below the directory that the tool is started in.", "Write the absolute path."},
    {"E-DIR-NOT-DIRECTORY", "a target directory is not a directory",
     "-copy fails at the first file of this list.", "Name a directory, or move away what is there."},
    {"E-LIST-TOO-LONG", "the value of a list's key is longer than 4095 bytes",
     "All three passes skip the whole key, and still end with status 0: none of its files is upgraded.",
     "Spread the entries over several keys."},
    {"E-ENTRY-EMPTY", "an entry has no file name",
     "-rename and -copy use the target directory as the file: they fail and stop. -clean removes a file "
     "named \".bak\".",
     R"(Remove doubled commas, the comma at the end, and a '/' or "\.." at the end of an entry.)"},
    {"E-ENTRY-OUTSIDE", "an entry leaves the package's Common directory",
     "-copy copies whatever file of the server is there, or fails if there is none.",
     "Put the file into Common, and give its path below Common."},
    {"E-NAME-BAK", "a file name ends in \".bak\"",
     "The passes treat it as a backup: -rename overwrites it with one, or -clean removes it.",
     "Rename the file in the package."},
    {"E-NAME-TOO-LONG", "a file name or path is too long for its backup",
     "-rename fails if the installed file's name has 252 to 255 bytes. -copy fails with longer names, and "
     "with paths of 4096 bytes or more.",
     "Use a shorter name."},
    {"E-DUPLICATE-NAME", "two files of the package go to the same target",
     "The later one overwrites the earlier one.",
     "Remove one, or give it another name or directory. The target has no subdirectories."},
    {"E-SOURCE-MISSING", "the package lacks a listed file",
     "-copy fails there and stops; the files listed after it stay missing.",
     "Add the file to Common, or remove the entry."},
    {"E-SOURCE-UNREADABLE", "a file of the package can't be read", "-copy fails there and stops.",
     "Make it readable for the user who runs the upgrade."},
    {"E-SOURCE-NOT-REGULAR", "an entry is not a regular file",
     "With a directory -copy fails or makes an empty file. With a named pipe it waits for ever.",
     "List the files one by one."},
    {"E-TARGET-DIRECTORY", "the target is a directory",
     "-rename moves the whole directory to NAME.bak. -clean fails on it unless it is empty.",
     "Use another file name, or remove the directory first."},
    {"E-TARGET-DANGLING", "the target is a dangling symlink",
     "-rename treats it as missing and makes no backup. -copy creates the file that the symlink names, or "
     "fails.",
     "Remove the symlink first."},
    {"E-TARGET-SPECIAL", "the target is a device, pipe or socket",
     "-rename moves it to NAME.bak, and services no longer find it.", "Use another file name."},
    {"E-TARGET-IN-PACKAGE", "the target is the package's own file",
     "-rename may move it out of the package. Without -rename, -copy copies it onto itself and empties it.",
     "Unpack the package elsewhere, or remove the link between the two."},
    {"E-TARGET-TOOL", "the target is a program or library that the upgrade tool needs",
     "Once -rename has moved it, neither the tool nor vfilelist starts.",
     "Use `vfilelist upgrade`, which does not need these files once it runs.", true},
    {"E-TARGET-LOCKED", "a target or its directory is immutable or append-only",
     "-rename fails there: operation not permitted.",
     "Remove the attribute (`chattr -i` or `chattr -a`) for the upgrade."},
    {"E-TARGET-MOUNT", "the target is a mount point", "-rename fails there: device or resource busy.",
     "Unmount it first, or upgrade the file where it is mounted from: a container's image, for instance."},
    {"E-BACKUP-SAME-FILE", "NAME and NAME.bak are the same file",
     "The old content would be lost. With two hard links -rename reports success but moves nothing, and "
     "-copy overwrites both. With a symlink NAME to NAME.bak, -rename overwrites the file with the symlink.",
     "Make sure that NAME is the file itself, and that there is no NAME.bak."},
    {"E-BACKUP-DIRECTORY", "NAME.bak is a directory",
     "-rename fails if there is a file NAME. -clean fails unless the directory is empty.",
     "Move the directory away."},
    {"E-UPGRADE-UNFINISHED", "an upgrade was begun but not finished",
     "-rename would overwrite NAME.bak, the only copy of the old file: NAME already holds the new file, or "
     "a beginning of it.",
     "Run what `vfilelist status` names. If no upgrade is open there, it was begun by hand: finish it with "
     "-copy and -clean, or roll it back with `vfilelist rollback`."},
    {"E-PACKAGE-UNSIGNED", "the package has no signature of a trusted key",
     "`vfilelist upgrade` refuses it: this machine has a directory of trusted keys, or --trusted names one.",
     "Get a signed package from its maker. Or put the maker's public key into that directory, if you trust "
     "its source."},
    {"E-MANIFEST-INVALID", "the manifest can't be used",
     "`vfilelist upgrade` refuses the package: its files can't be checked, or their owners are unknown.",
     "Make the package again with `vfilelist make`, or add the missing users and groups to this machine."},
    {"E-MANIFEST-DIFFERS", "the package differs from its manifest",
     "`vfilelist upgrade` refuses it: since it was made, a file was changed, added or lost.",
     "Fetch the package again, or make it again."},
    {"E-RELEASE-ORDER", "this release can't replace the installed one", "`vfilelist upgrade` refuses it.",
     "Install a newer release, or first the ones between. To go back to an older release, make it again as "
     "a newer one."},
    {"E-RECEIPT-UNREADABLE", "the receipt of earlier upgrades can't be read",
     "`vfilelist upgrade` refuses the package: it is unknown which release is installed.",
     "Fix the named error, or move a damaged receipt away: the earlier upgrades are then unknown."},
    {"W-LIST-EMPTY", "a list has no entries", "Nothing is upgraded for it, and no pass reports it.",
     "Add the section, check its spelling (names are case-sensitive), or remove the key."},
    {"W-ENTRY-BLANKS", "an entry begins or ends with a blank",
     "The blank is part of the name: the tool looks for a file with it.",
     "Write entries without blanks around the commas."},
    {"W-ENTRY-BACKSLASH", "an entry has backslashes",
     "In Common they are part of the file's name. The target's name is what follows the last slash or "
     "backslash.",
     "Use '/'."},
    {"W-SOURCE-UNLISTED", "a file in Common is not listed", "It is not installed.",
     "List it, or leave it out of the package."},
    {"W-DUPLICATE-ENTRY", "a file is listed twice for the same target", "It is copied twice.",
     "Remove one of the entries."},
    {"W-NAME-LONG", "a file name leaves no room for \".bak\"",
     "The file is installed, but -rename of the next upgrade can't back it up and fails.",
     "Use a name of at most 251 bytes."},
    {"W-DIR-MADE", "-copy will make a directory",
     "It belongs to the user who runs -copy, with mode 0750 minus the umask: users outside its group can't "
     "enter it.",
     "Make it before the upgrade if it needs another mode or owner."},
    {"W-MODE-LOST", "a file's mode or owner will be lost",
     "-copy makes the new file with mode 0666 minus the umask, owned by the user who runs it.",
     "Use `vfilelist upgrade`. Or run `vfilelist rollback --only-modes` after -copy, and set the modes of "
     "files without a backup yourself."},
    {"W-ATTRIBUTES-LOST", "a file's capabilities, access control list or user attributes will be lost",
     "-copy makes the new file without extended attributes.",
     "Use `vfilelist upgrade`, or set them again after -copy (setcap, setfacl, setfattr)."},
    {"W-TARGET-LINKED", "the target is a symlink, or has other hard links",
     "The passes replace only this name. The file that the symlink names and the other hard links keep the "
     "old content.",
     "List the file that the symlink names. Make hard links again after the upgrade."},
    {"W-OTHERS-WRITE", "other users can write to a target directory or the package",
     "They can replace files, backups and the list itself while the upgrade runs with your rights.",
     "Remove the write permission of all users but root and yourself."},
    {"W-OLD-BACKUP", "an old NAME.bak is there",
     "`vfilelist upgrade` refuses the package; -rename replaces the backup without a message. While it is "
     "there, verify names no pass and rollback restores nothing.",
     "If the last upgrade is finished, remove the backup: run `VCopyFileListIni -clean` with its file list."},
    {"W-TARGET-BUSY", "a process executes or maps a target",
     "After -rename the process uses the old file until it is restarted. Without -rename, -copy fails "
     "(text file busy), or the process sees its file change.",
     "Stop the services before the upgrade, or restart them after it."},
    {"W-INSTALLED-CHANGED", "an installed file was changed since its upgrade",
     "The upgrade replaces it; when the backup is removed, the change is lost.",
     "Keep the change elsewhere, or put it into the package."},
    {"W-SPACE", "there is too little free space, or too few free inodes",
     "The new files need space and inodes beside the backups: -copy fails when they run out.",
     "Make room on that file system."},
    {"W-TARGET-NOT-WRITABLE", "a target directory is not writable",
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

Finding FindingOf(const char* code, const std::string& path, const std::string& detail) {
    return {&KindOf(code), "", "", "", path, detail};
}
