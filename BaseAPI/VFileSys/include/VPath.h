#ifndef VPATH_H
#define VPATH_H

#include <string>

/// A text result of VPath: either a view into the VPath that it came from, or a block of its own.
///
/// Move-only; the destructor releases an owned text. A text that is not owned is good only while its VPath
/// lives unchanged, so keep the VPath: `VPath(dir).BaseName().text` points into an object that is gone.
class __attribute__((visibility("default"))) PathText {
public:
    /// Takes over `pathText`; with `isOwned` it must come from malloc and is freed by the destructor.
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

/// An absolute path, canonicalised as text and held in the object: at most 4095 characters, no heap.
///
/// Making one from a text puts the working directory before a relative text, collapses runs of '/', drops
/// trailing '/' and removes "." and ".." components, without asking the file system: links are not followed,
/// nothing has to exist, and ".." always drops the component before it. Deliberately, **the last component is
/// never examined**: "/a/./b" becomes "/a/b" and "/a/b/../c" becomes "/a/c", but "/a/b/..", "/a/." and "/.."
/// stay as they are, and a relative "." becomes the working directory with "/." behind it.
///
/// A VPath is valid or invalid. It is invalid when its text was null, empty or too long (4096 characters or
/// more, or more than 4095 with the working directory and a '/' before it), or when the working directory
/// could not be read. Invalid paths answer every question with the empty text and stay invalid until the
/// next ResolvePath or assignment.
///
///     VPath config("/opt/app/../app/etc/");   // "/opt/app/etc"
///     config += "../log";                     // "/opt/app/log"
///     const PathText text = config.RealPath();
///     if (text.text[0] != '\0') puts(text.text);
///
/// No operation logs or throws, except that joining may let the standard library's std::bad_alloc or
/// std::length_error through. Distinct objects may be used from different threads; a relative text depends
/// on the process's working directory at that moment.
class __attribute__((visibility("default"))) VPath {
public:
    /// Stores the flag `isValid` and the characters from `begin` up to `end` as they stand, unresolved; with
    /// `end` null, the whole NUL-terminated text at `begin`. The path is invalid, whatever the flag, when
    /// that is 4096 characters or more, `begin` is null, or `end` lies before `begin`.
    VPath(bool isValid, const char* begin, const char* end);
    /// Resolves `text`; null gives an invalid path.
    VPath(const char* text);
    /// Resolves `text`, up to its first NUL if it holds one.
    VPath(const std::string& text);
    /// Takes over the text of `other` and whether it is valid.
    VPath(const VPath& other);
    /// Takes over the text of `other`, which may be this path, and whether it is valid.
    VPath& operator=(const VPath& other);
    /// There is nothing to release; what points into this path's text is good no longer.
    ~VPath();

    /// Replaces this path by the canonical form of `text`, which may be this path's own text. An invalid
    /// result is seen by RealPath giving the empty text.
    void ResolvePath(const char* text);

    /// Appends '/' and `tail` to a valid path and resolves the whole again. The tail is always appended,
    /// also when it begins with '/'; "." and ".." in it act on the components before them, but not as its
    /// last component. A last component that was kept so far is examined now: "/a/.." and "x" give "/x". A
    /// null or empty tail leaves a resolved path as it is. The path becomes invalid when the joined text,
    /// with the '/' between, reaches 4096 characters; an invalid path stays as it is.
    VPath& operator+=(const char* tail);
    /// The same; `tail` ends at its first NUL if it holds one.
    VPath& operator+=(const std::string& tail);

    /// As operator+=, into a new path; this one is unchanged. The sum with an invalid path is invalid.
    VPath operator+(const char* tail) const;
    /// As operator+= of a string, into a new path; this one is unchanged.
    VPath operator+(const std::string& tail) const;

    /// True exactly when the stored text is "/". Looks at the text alone: also true of an invalid path
    /// whose old text was "/".
    bool IsRootDir() const;

    /// The path's text, not owned; the empty text when the path is invalid. Despite its name it asks no
    /// file system: the text of a path that names a link is that path.
    ///
    /// Hazard 22 of docs/reliability.md.
    PathText RealPath() const;

    /// The text before the last '/', owned. "/" gives "/", not owned. Deliberately, "/a" gives the empty
    /// text, not "/". The empty text, not owned, when the path is invalid or no memory can be had.
    PathText DirName() const;

    /// The text behind the last '/', not owned; "/" gives "/". The empty text when the path is invalid.
    ///
    /// Hazard 22 of docs/reliability.md.
    PathText BaseName() const;

    /// DirName as a path: valid, not resolved again. "/" gives "/", and "/a" a valid path with the empty
    /// text. An invalid path gives an invalid path with the empty text.
    VPath DirPath() const;

    /// True when the path `name`, taken as given, exists (access with F_OK: links are followed and the real
    /// user's rights count). False for null, and for every failure, with errno from access.
    static bool FileExist(const char* name);

private:
    bool valid;
    char path[4096];
};

#endif
