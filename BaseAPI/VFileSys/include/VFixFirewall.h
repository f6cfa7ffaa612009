#ifndef VFIXFIREWALL_H
#define VFIXFIREWALL_H

/// Has the product's helper tool repair the host's firewall every five minutes, from a background thread.
/// There are no objects of this class.
///
///     VFixFirewall::FixFirewallStart();  // once, when the service starts
///     ...
///     VFixFirewall::FixFirewallStop();   // once, when it ends for good
///
/// One pass runs "/usr/local/tarnserver/bin/tarnfileprotect Firewall" through /bin/sh with the environment of
/// the process. The next pass follows whether or not this one succeeded; only the log shows failures.
///
/// Details: log lines have level 3, except where level 1 is named. They are, by function name:
///  - "FixFirewallStart", "FixFirewallStop": The call. The text is the function's name.
///  - "FixFirewallThread": "FixFirewallThread" when a thread begins and "FixFirewallThread exit" when it
///    ends.
///  - "FixFirewall": "FixFirewall" when a pass begins and "FixFirewall end" when it ends. A pass whose
///    command could not be put together ends with "sprintf_s failed!" (level 1).
///  - "ProcessCmd": In each pass "ProcessCmd in VFileSys", the command, every line of its output with its
///    line feed, and "ProcessCmd in VFileSys, rs = %d". If the command can't be started, "popen failed"
///    (level 1) stands instead of the output and the last line. An output line of more than 4094 characters,
///    line feed included, is logged in pieces of that length.
///
/// The number after "rs =" depends on how the shell ended:
///  - by itself: The exit status: 127 if the helper tool is missing, 128 plus the signal's number if a signal
///    killed the tool.
///  - by a signal: The raw wait status. A shell that replaces itself by the tool, as bash(1) does, ends
///    this way when a signal kills the tool.
///  - unknown: -1, for instance in a process that ignores SIGCHLD.
class __attribute__((visibility("default"))) VFixFirewall {
public:
    /// Starts a thread that repairs the firewall at once and then every 300 seconds until FixFirewallStop.
    /// **A second call starts a second thread**; a call after FixFirewallStop starts one that ends at once.
    /// **Block signals before the call** with pthread_sigmask(3). Throws std::system_error or std::bad_alloc
    /// when no thread can be started. May be called from any thread.
    ///
    /// Details: the thread inherits the signal mask, and the helper tool inherits it from the thread. A
    /// signal that the thread handles ends its sleep, and the next pass begins at once. A handler without
    /// SA_RESTART also ends the reading of the output: the helper tool then dies of SIGPIPE when it writes
    /// its next line, in the middle of a repair.
    ///
    /// The thread is detached: nothing waits for it, not even the exit of the process. It does not survive a
    /// fork. dlclose(3) never unloads the library, so the thread goes on after it. The thread logs until the
    /// process ends: keep its logger usable for that long.
    ///
    /// Hazards (reliability.md): no-time-out, detached-thread, inherited-environment, names-in-log.
    static void FixFirewallStart();

    /// Tells every thread that was or will be started to end, for the rest of the process's life, and returns
    /// at once. May be called from any thread.
    ///
    /// Details: a thread ends when its pass and the 300 seconds of sleep after it are over, or earlier when
    /// it handles a signal in this sleep. The request survives dlclose(3): it holds when the library is
    /// loaded again.
    static void FixFirewallStop();

    explicit VFixFirewall() = delete;
};

#endif
