#pragma once

#include <string>

#include "ctl/check_context.h"

namespace tavlo::ctl {

/// The concerns of `tavloctl check`. Each changes nothing, and adds to the findings what would not
/// work, and what it cannot look at.

/// Reads the settings as the daemon does, and looks for what it ignores. An empty path stands for
/// the built-in settings. Returns false when there are none: the daemon would not start.
bool CheckSettings(const std::string& path, AppSettings* settings, Findings* findings);

/// Certificate chain and private key of the TLS listener.
void CheckTlsFiles(const CheckContext& context);

/// The router information file with the pairing key.
void CheckRouterInformation(const CheckContext& context);

/// The list that GET /api/mac is answered from.
void CheckDeviceList(const CheckContext& context);

/// The scripts of all events, and their directories.
void CheckHooks(const CheckContext& context);

/// The file that hands a request's body to scripts, and its directory.
void CheckBodyFile(const CheckContext& context);

/// Where a crash leaves its record.
void CheckCrashRecords(const CheckContext& context);

/// The log file that the daemon is given with -f.
void CheckLogFile(const CheckContext& context, const std::string& path);

/// That `agentUser` exists, and can be asked what it may do.
void CheckUser(const CheckContext& context);

/// That the interface of the LAN has an address to listen on.
void CheckLanInterface(const CheckContext& context);

/// The ports of both listeners.
void CheckPorts(const CheckContext& context);

/// Sends the SDK REST host a request, and waits for its answer for at most three seconds; its name
/// is looked up, where it has one.
void CheckDestination(const CheckContext& context);

}  // namespace tavlo::ctl
