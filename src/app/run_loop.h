#pragma once

/// Runs both hosts, each on a thread of its own, and supervises them from the calling (main) thread
/// until SIGTERM or SIGINT comes or a thread falls silent; returns at once, after a logged error,
/// when the system refuses a thread. `Init` has succeeded before. The host threads still run when
/// it returns: the caller ends the process.
void Run();

/// Reads the pairing key from the router information file, under its lock (which may take some four
/// seconds), and hands it to the TLS host. A file that cannot be read is logged; without a key in
/// it nothing changes.
void UpdatePairingKey();

/// Looks up the LAN interface's IPv4 address and hands it to both hosts. A failure is logged and
/// changes nothing.
void UpdateLanAddress();
