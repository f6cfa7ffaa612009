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
/// the process. A pass that fails is tried again at the next turn; failures show in the log only.
///
/// Details: each log line has the name of a function, and level 3 unless said otherwise:
///  - "FixFirewallStart", "FixFirewallStop": The call; the text is the function's name, too.
///  - "FixFirewallThread": "FixFirewallThread" when a thread begins and "FixFirewallThread exit" when it
///    ends.
///  - "FixFirewall": "FixFirewall" and "FixFirewall end" for each pass; "sprintf_s failed!" (level 1) ends a
///    pass whose command could not be put together.
///  - "ProcessCmd": Between these two: "ProcessCmd in VFileSys", the command, every line of its output with
///    its line feed, and "ProcessCmd in VFileSys, rs = %d". A longer line comes in pieces of 4094 characters,
///    the line feed counted. A command that can't be started gives "popen failed" (level 1) instead.
///
/// The number after "rs =" is the exit status of the shell: 127 for a helper tool that is missing, 128 plus
/// the signal's number for one that a signal killed. It is the raw wait status when the shell did not exit by
/// itself or could not be waited for (-1, for instance in a process that ignores SIGCHLD). A shell that
/// replaces itself by the tool, as bash(1) does, leaves the raw wait status of the killed tool: the signal's
/// number.
class __attribute__((visibility("default"))) VFixFirewall {
public:
    /// Starts a thread that repairs the firewall at once and then every 300 seconds until FixFirewallStop.
    /// **A second call starts a second thread**; a call after FixFirewallStop starts one that ends at once.
    /// **Block signals before the call** with pthread_sigmask(3). Throws std::system_error or std::bad_alloc
    /// when no thread can be started. May be called from any thread.
    ///
    /// Details: the thread inherits the signal mask, and the helper tool inherits it from the thread. A
    /// signal that the thread handles cuts its sleep short, so that the next pass comes early. A handler
    /// without SA_RESTART also ends the reading of the output: the helper tool then dies of SIGPIPE when it
    /// writes its next line, in the middle of a repair.
    ///
    /// The thread is detached: nothing waits for it, not even the exit of the process. It does not survive a
    /// fork. dlclose(3) never unloads the library, so the thread goes on after it. The thread logs until the
    /// process ends: a logger has to stay usable for that long.
    ///
    /// Hazards (reliability.md): no-time-out, detached-thread, inherited-environment, names-in-log.
    static void FixFirewallStart();

    /// Tells every thread that was or will be started to end, for the rest of the process's life, and returns
    /// at once. May be called from any thread.
    ///
    /// Details: a thread ends when its pass and its sleep are over: after up to 300 seconds, or earlier when
    /// a signal handled by that thread cuts its sleep short. The request also survives dlclose(3): it holds
    /// when the library is loaded again.
    static void FixFirewallStop();

    explicit VFixFirewall() = delete;
};

#endif
