#ifndef VINI_H
#define VINI_H

#include <set>
#include <string>

/// Reads INI files: `[section]` lines, `key = value` lines, and comment lines that begin with ';' or '#'.
///
/// Section and key names are case-sensitive. Blanks (spaces and tabs) around a section name, a key and a
/// value are dropped, so are those before a line; inside a value everything is kept: blanks, backslashes (a
/// last one too: no line is continued), commas, quotes, ';', '#' and bytes that are not UTF-8. Of a key that
/// stands more than once in its section the last value counts; a section that stands more than once is one.
/// Keys before the first section line belong to the section named "", as do those below a line "[]".
/// Lines may end in LF, CRLF or CR; a UTF-8 byte-order mark is skipped.
///
/// The odd cases, none of which is reported: a line without '=' or with nothing before it is skipped; so is
/// what follows the ']' of a section line; below a line that begins with '[' and has no ']', the keys up to
/// the next section line belong to no section; a NUL byte ends the file.
///
/// A file is parsed once and the parse is kept for the next calls, as long as the file is the same (device,
/// inode, size and times); reading N keys costs N. A file that changed a moment ago is read anew by each
/// call, and parsed when its content is another, since one more change could leave it with the same times. A
/// moment is two steps of the kernel's coarse clock, a few milliseconds, and two seconds where the time of
/// the change is a whole hundredth of a second, as on file systems that keep no finer ones. It is counted
/// from the first call for a file whose times lie in the future. Two things can hide a change: a network file
/// system whose server has not yet told of it, and a clock that was set back and comes to the very same time
/// again. No more than one file's parse is kept.
///
/// A file that can't be read, or is no ordinary file, or finds no memory, holds nothing; one line on standard
/// error says why, and says so once, not for every key. Control characters, backslashes and bytes that are
/// not UTF-8 are shown there escaped (\n, \t, \\, \x1b, ...). No operation throws. Every operation may be
/// called from any thread; it may change `errno`.
class __attribute__((visibility("default"))) VIni {
public:
    /// Copies the value of `key` in `section` of the file `iniPath` into `buffer`, the caller's buffer of
    /// `bufferSize` bytes, with its terminating NUL.
    ///
    /// Returns 0 when the key was found and its value copied whole. Returns -1 when there is no such file,
    /// section or key, and when the value does not fit (nothing is cut; one line on standard error names the
    /// section and the key): the buffer then holds `defaultValue` (which may be `buffer` itself) if that
    /// fits, otherwise the empty text. Returns -1 and touches nothing when `buffer` is null or `bufferSize`
    /// below 1. A null `section` counts as "", a null `key` or `iniPath` is not found, a null
    /// `defaultValue` counts as "".
    static int IniGetString(const char* section, const char* key, const char* defaultValue, char* buffer,
                            int bufferSize, const char* iniPath);

    /// Adds the names of all keys in `section` of the file `iniPath` to `keys`.
    ///
    /// Returns the number of keys in the section; 0 when there is no such file or section.
    static int IniGetStringItems(const char* section, std::set<std::string>& keys, const char* iniPath);
};

#endif
