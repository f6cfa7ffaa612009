#ifndef VLOGGER_H
#define VLOGGER_H

/// The importance of a log line. 1 is a hard error, 3 is information; a larger number is less important.
enum LogLevel : int { kLogLevelError = 1, kLogLevelWarning = 2, kLogLevelInformation = 3 };

/// The product's log, one for each process: a text file that rotates by size.
///
/// The log belongs to the program, not to the libraries that write to it: the program calls StartSystem
/// once at its start and StopSystem at its end; lines before and after go nowhere. No operation throws, and
/// a log that can't be written never stops the program: the error is reported once on standard error.
/// Every operation may be called from any thread at any time, also while the process exits.
///
/// Two environment variables help a person at a terminal:
///  - VLOGGER_STDERR=1 also shows every line on standard error, in colour on a terminal;
///  - VLOGGER_DIRECTORY=DIR puts the log file into DIR instead of the directory that the program asked for.
class __attribute__((visibility("default"))) VLogger {
public:
    /// The process's log. Never null; lives until the process has ended.
    static VLogger* GetInstance();

    /// Opens the log file `fileName` in `directory` (made with its parents when missing) for appending;
    /// a log that is open is closed first.
    ///
    /// `fileCount` (1 to 1000, other numbers count as the nearest) is the number of files kept at most, the
    /// current one included, the others as NAME.1.log, NAME.2.log ... for NAME.log. `detail` chooses what
    /// stands around the text: 0 nothing, 1 the time and the level before it, 2 also the function before and
    /// the source line behind it. Lines of a level above `maxLevel` are dropped. The file rotates before a
    /// line would make it longer than `maxFileKiB` KiB (0 counts as 1); a line longer than that is kept
    /// whole, in a file of its own. `alsoOnStandardError` shows every line there too. Each process wants a
    /// file of its own: several may write to one, but lines are lost when they rotate it at once.
    ///
    /// When the file can't be opened, one line on standard error says so and nothing is written to a file.
    /// When a line can't be written, on a full disk for instance or without memory, it is lost, the first
    /// time is told on standard error, and the next line is tried anew.
    void StartSystem(const char* fileName, const char* directory, int fileCount, int detail,
                     LogLevel maxLevel, unsigned long maxFileKiB, bool alsoOnStandardError);

    /// Writes one line, made from the printf-style `format` and what follows it; it is in the file when the
    /// call returns. May change `errno`.
    ///
    /// One call is one line, whatever the text holds: control characters and bytes that are not UTF-8 are
    /// shown escaped (\n, \t, \x1b, ...), so that a hostile file name can't forge a line or steer a terminal.
    /// A backslash is shown as \\, so that an escape can be told from a text that looks like one. One line
    /// feed at the very end is dropped. `module` and `tag` are not shown. A null text is shown as "(null)"; a
    /// null `format` writes nothing.
    void Log(const char* file, int line, const char* function, const char* module, const char* tag,
             LogLevel level, const char* format, ...) __attribute__((format(printf, 8, 9)));

    /// Closes the log file; no line is written after the return. Does nothing when no log is open.
    void StopSystem();

private:
    VLogger() = default;
    ~VLogger() = default;
    VLogger(const VLogger&) = delete;
    VLogger& operator=(const VLogger&) = delete;
};

#endif
