#pragma once

/// Ends this process in order when a signal asks for it (SIGTERM, SIGINT, SIGHUP).
///
/// Launchers pass such a signal on to all ranks of a job. The serial or master process stops its server in
/// order, which releases the workers; a worker leaves that to the master. A second request after PATIENCE
/// ends the process at once, and with it the job.
///
/// A launcher that kills the job within seconds (LauncherWatch::getKillingLauncher()) passes on no request:
/// its signal is told to the clients as the end of the job, the server stops as far as the time allows, and a
/// second signal of the launcher changes nothing.
class StopSignals {
public:
    static constexpr double PATIENCE =
        2.0; ///< [s] one Ctrl-C often arrives twice: from the terminal and the launcher

    /// Main thread, once the role is fixed.
    static void install();
    /// The system's default course again. Main thread.
    static void uninstall();

    /// While true, a request stops the server; one that came earlier does so now. Main thread.
    static void setServing(bool serving);

private:
    static void request(int signal, int sender);
};
