#ifndef VFIXFIREWALL_H
#define VFIXFIREWALL_H

/// Has the product's helper tool repair the host's firewall every five minutes, from a background thread.
/// There are no objects of this class.
///
/// One pass runs "/usr/local/tarnserver/bin/tarnfileprotect Firewall" through /bin/sh with the environment of
/// the process. A pass that fails is tried again at the next turn; failures are seen in the log only.
///
///     VFixFirewall::FixFirewallStart();   // once, when the service starts
///     ...
///     VFixFirewall::FixFirewallStop();    // once, when it is to end for good
///
/// Every log line is of level 3 unless said otherwise, with the function's name: "FixFirewallStart",
/// "FixFirewallStop"; by the thread "FixFirewallThread" at its begin and "FixFirewallThread exit" at its end
/// (function name "FixFirewallThread"); for each pass "FixFirewall" and "FixFirewall end" (function name
/// "FixFirewall") and between them, with function name "ProcessCmd": "ProcessCmd in VFileSys", the command,
/// every line of its output with its line feed (in pieces of 4094 characters where it is longer, the line
/// feed counted), and "ProcessCmd in VFileSys, rs = %d" with the exit status, or with the raw wait status
/// when the command did not exit by itself or could not be waited for (-1, for instance in a process that
/// ignores SIGCHLD). The command is the shell. It exits with 127 for a helper tool that is missing, and with
/// 128 plus the signal's number for one that a signal killed. A shell that replaces itself by the tool, as
/// bash does, leaves the raw wait status of the killed tool instead: the signal's number. A command that
/// can't be started gives "popen failed" (level 1) instead; "sprintf_s failed!" (level 1, function name
/// "FixFirewall") ends a pass whose command could not be put together.
class __attribute__((visibility("default"))) VFixFirewall {
public:
    /// Starts a thread that repairs the firewall at once and then every 300 seconds until FixFirewallStop.
    ///
    /// The thread is detached: nothing waits for it, also not when the process exits. It does not survive a
    /// fork. dlclose never unloads the library, so the thread goes on after it. **A second call starts a
    /// second thread** beside the first; a call after FixFirewallStop starts one that ends at once. Throws
    /// std::system_error or std::bad_alloc when no thread can be had. May be called from any thread.
    ///
    /// **Block signals before the call**: the thread inherits the signal mask, and the helper tool inherits
    /// it from the thread. A signal that the thread handles cuts its sleep short, so that the next pass comes
    /// early. A handler without SA_RESTART also ends the reading of the output: the helper tool then dies of
    /// SIGPIPE when it writes its next line, in the middle of a repair.
    ///
    /// The thread logs until the process ends: a logger has to stay usable for that long.
    ///
    /// Hazards 3, 25, 26 and 27 of docs/reliability.md.
    static void FixFirewallStart();

    /// Tells every thread that was or will be started to end, for the rest of the process's life, and returns
    /// at once. This stays so when the library is closed with dlclose and loaded again. A thread notices it
    /// only when its pass and its sleep are over: after up to 300 seconds, or earlier when a signal handled
    /// by that thread cuts its sleep short. May be called from any thread.
    static void FixFirewallStop();

    explicit VFixFirewall() = delete;
};

#endif
