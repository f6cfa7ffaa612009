#ifndef VLOGGER_H
#define VLOGGER_H

/// The importance of a log line. 1 is a hard error, 3 is information; a larger number is less important.
enum LogLevel : int { kLogLevelError = 1, kLogLevelWarning = 2, kLogLevelInformation = 3 };

/// The product's log, one for each process: a text file that rotates by size.
///
/// The log belongs to the program, not to the libraries that write to it: the program calls StartSystem
/// once at its start and StopSystem at its end; lines before and after go nowhere. No operation throws, and
/// a log that can't be written never stops the program: the trouble is told once on standard error.
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
    /// `fileCount` is the number of files kept at most, the current one included, the others as
    /// NAME.1.log, NAME.2.log ... for NAME.log. `detail` chooses what stands before the text: 0 nothing,
    /// 1 the time and the level, 2 the function and the source line as well. Lines of a level above
    /// `maxLevel` are dropped. The file rotates before it exceeds `maxFileKiB` KiB (0 counts as 1).
    /// `alsoOnStandardError` shows every line there too.
    ///
    /// When the file can't be opened, one line on standard error says so and nothing is written to a file.
    void StartSystem(const char* fileName, const char* directory, int fileCount, int detail,
                     LogLevel maxLevel, unsigned long maxFileKiB, bool alsoOnStandardError);

    /// Writes one line, made from the printf-style `format` and what follows it.
    ///
    /// One call is one line, whatever the text holds: control characters in it are shown escaped (\n, \t,
    /// \x1b, ...), so that a hostile file name can't forge a line; one line feed at its very end is dropped.
    /// `module` and `tag` are not shown. A null text is shown as "(null)"; a null `format` writes nothing.
    void Log(const char* file, int line, const char* function, const char* module, const char* tag,
             LogLevel level, const char* format, ...) __attribute__((format(printf, 8, 9)));

    /// Writes out what is pending and closes the log file. Does nothing when no log is open.
    void StopSystem();

private:
    VLogger();
    ~VLogger() = delete;
    VLogger(const VLogger&) = delete;
    VLogger& operator=(const VLogger&) = delete;

    class State;
    State* const state_;
};

#endif
