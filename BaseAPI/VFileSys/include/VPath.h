#ifndef VPATH_H
#define VPATH_H

#include <string>

/// A text result of VPath: either a view into the VPath that it came from, or a block of its own.
///
/// Move-only; the destructor releases an owned text. A text that is not owned is valid only while its VPath
/// lives unchanged, so keep the VPath: `VPath(dir).BaseName().text` is a dangling pointer.
class __attribute__((visibility("default"))) PathText {
public:
    /// Takes over `pathText`; with `isOwned` it must come from malloc(3) and is freed by the destructor.
    PathText(const char* pathText, bool isOwned) noexcept : text(pathText), owned(isOwned) {}
    /// Leaves `other` holding the empty text, not owned.
    PathText(PathText&& other) noexcept;
    /// Swaps the two: `other` then holds, and releases, what this one held.
    PathText& operator=(PathText&& other) noexcept;
    PathText(const PathText&) = delete;
    PathText& operator=(const PathText&) = delete;
    /// Frees an owned text.
    ~PathText();

    /// The NUL-terminated result. Never null: an empty result is a static empty text.
    const char* text;
    /// True when `text` is a block that this object frees; false when it must not be freed.
    bool owned;
};

/// An absolute path of at most 4095 characters, canonicalised as text and stored inline, no heap allocation.
///
/// Resolving a text puts the working directory before a relative text, collapses runs of '/', drops
/// trailing '/' and removes "." and ".." components. The file system is not asked: symlinks are not followed,
/// nothing has to exist, and ".." always drops the component before it. **The last component is never
/// examined**: "/a/./b" becomes "/a/b", but "/a/b/.." does not change.
///
///     VPath config("/opt/app/../app/etc/");  // "/opt/app/etc"
///     config += "../log";                    // "/opt/app/log"
///     const PathText text = config.RealPath();
///     if (text.text[0] != '\0') puts(text.text);
///
/// A VPath is invalid when its text was null, empty or too long, or when the working directory could not be
/// read. Every text of an invalid path is empty. It stays invalid until the next ResolvePath or assignment.
///
/// No operation logs or throws, except that joining may let the standard library's std::bad_alloc or
/// std::length_error through. Distinct objects may be used from different threads. A relative text depends on
/// the process's working directory at that moment.
///
/// Details: the last component is kept on purpose; callers rely on it. "/a/b/../c" becomes "/a/c", but "/a/."
/// and "/.." do not change. A relative "." becomes the working directory followed by "/.". To check that a
/// path is below a directory, check BaseName as well: it may be "..". Where the component before a ".." is a
/// symlink, the kernel finds another directory than VPath; VDir::VRealPath asks the system.
///
/// A text is too long with 4096 characters or more; for a relative one, the working directory and a '/' count
/// too. The text counts as given: 4096 slashes are too long, although they mean "/".
class __attribute__((visibility("default"))) VPath {
public:
    /// Stores the flag `isValid` and the characters from `begin` up to `end` unresolved; with `end` null, the
    /// whole NUL-terminated text at `begin`.
    ///
    /// Details: the path is invalid, whatever the flag, when the text has 4096 characters or more, `begin` is
    /// null, or `end` lies before `begin`.
    VPath(bool isValid, const char* begin, const char* end);
    /// Resolves `text`; null gives an invalid path.
    VPath(const char* text);
    /// Resolves `text`, up to its first NUL if it holds one.
    VPath(const std::string& text);
    /// Copies the text of `other` and whether it is valid.
    VPath(const VPath& other);
    /// Copies the text of `other`, which may be this path, and whether it is valid.
    VPath& operator=(const VPath& other);
    /// Releases nothing. Pointers into this path's text are no longer valid.
    ~VPath();

    /// Replaces this path by the canonical form of `text`, which may be this path's own text. When the result
    /// is invalid, RealPath gives the empty text.
    void ResolvePath(const char* text);

    /// Appends '/' and `tail` to a valid path and resolves the whole again. The tail is always appended, also
    /// when it begins with '/': "/a" and "/b" give "/a/b".
    ///
    /// Details: "." and ".." in the tail act on the components before them, but not as its last component.
    /// The last component of this path is examined now: "/a/.." and "x" give "/x". A null or empty tail does
    /// not change a resolved path. The path becomes invalid when the joined text, with the '/' between, has
    /// 4096 characters or more. An invalid path does not change.
    VPath& operator+=(const char* tail);
    /// The same; `tail` ends at its first NUL if it holds one.
    VPath& operator+=(const std::string& tail);

    /// As operator+=, into a new path; this one does not change. If this one is invalid, so is the new one.
    VPath operator+(const char* tail) const;
    /// As operator+= of a string, into a new path; this one does not change.
    VPath operator+(const std::string& tail) const;

    /// True when the stored text is "/", even if the path has become invalid.
    bool IsRootDir() const;

    /// The path's text, not owned; the empty text when the path is invalid. Despite its name it does not ask
    /// the file system: symlinks are not followed.
    ///
    /// Hazard (reliability.md): borrowed-text.
    PathText RealPath() const;

    /// The text before the last '/', owned. "/" gives "/", not owned. The empty text, not owned, when the
    /// path is invalid or memory runs out. **"/a" gives the empty text, not "/"**, on purpose; callers rely
    /// on it.
    PathText DirName() const;

    /// The text after the last '/', not owned; "/" gives "/". The empty text when the path is invalid.
    ///
    /// Hazard (reliability.md): borrowed-text.
    PathText BaseName() const;

    /// DirName as a valid path; the text is not resolved again. "/" gives "/", and "/a" a valid path with the
    /// empty text. An invalid path gives an invalid path with the empty text.
    VPath DirPath() const;

    /// True when the path `name`, which is not resolved, exists. False for null, and for every failure, with
    /// the errno of access(2).
    ///
    /// Details: the test is access(2) with F_OK, so symlinks are followed and the real user's rights count.
    static bool FileExist(const char* name);

private:
    bool valid;
    char path[4096];
};

#endif
