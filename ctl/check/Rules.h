#pragma once

#include <cstddef>
#include <string>

#include "ctl/check/KeySearch.h"
#include "ctl/check/Report.h"
#include "ctl/check/Subject.h"

// One rule family a file. None of them changes anything, runs anything of a service's, or throws for what it
// finds.
namespace keywardctl::check {

// KeyRules.cpp: lines that the daemon reads otherwise than they look.
void checkKeys(const ConfigLines& lines, const KeyTable& table, Report& report);

// ValueRules.cpp
void checkSwitches(const ConfigLines& lines, const KeyTable& table, Report& report);
void checkRelativePaths(const ConfigLines& lines, const KeyTable& table, Report& report);
/// `bytesOfLong`: of the daemon, which is built for the same device as whoever asks.
void checkServiceValues(const CheckedFile& file, Report& report, std::size_t bytesOfLong = sizeof(long));
/// What the daemon itself says when it refuses the service's file, unless a rule has said it already.
void checkServiceRefusal(const CheckedService& service, Report& report);

// DaemonRules.cpp
void checkDaemonValues(const CheckedFile& file, Report& report);
/// As for a service. False when the daemon refuses its file, which was reported.
bool checkDaemonRefusal(const CheckedFile& file, Report& report);

// FolderRules.cpp: the folder of the service files.
void checkServiceFolder(const Subject& subject, Report& report);

// AccountRules.cpp
void checkDaemonAccounts(const Subject& subject, Report& report);
void checkServiceAccounts(const Subject& subject, const CheckedService& service, Report& report);

// PathRules.cpp: what the daemon needs of its folders once it is no longer root.
void checkDaemonPaths(const Subject& subject, Report& report);
void checkOpenToOthers(const Place& place, const std::string& path, Report& report);

// LockRules.cpp
void checkLock(const Subject& subject, Report& report);

// CallbackRules.cpp
void checkCallbacks(const Subject& subject, const CheckedService& service, Report& report);

// RequestRules.cpp, SettingsRules.cpp
void checkRequestSettings(const Subject& subject, const CheckedService& service, Report& report);
void checkSettingsFile(const Subject& subject, const CheckedService& service, Report& report);

// AuthorityRules.cpp
void checkAuthority(const Subject& subject, const CheckedService& service, Report& report);

// InterfaceRules.cpp, NetworkRules.cpp
void checkInterfaces(const CheckedFile& file, Report& report);
/// Asks the platform's network script, as the daemon user.
void checkNetwork(const Subject& subject, Report& report);

// StoreRules.cpp: modes, owners and groups; CertificateRules.cpp: what the files hold.
void checkDaemonFolders(const Subject& subject, Report& report);
void checkStores(const Subject& subject, const CheckedService& service, Report& report);
void checkCertificates(const Subject& subject, const CheckedService& service, Report& report);
/// UnnamedRules.cpp: files of certificates that a service has and does not use.
void checkUnnamedFiles(const CheckedService& service, Report& report);
void checkClock(Report& report);

}  // namespace keywardctl::check
