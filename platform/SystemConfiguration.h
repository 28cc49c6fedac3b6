// The network part of the platform API: preferences, services, interfaces, protocols, sets and connections, under the
// names that macOS gives them. One backend is chosen when a program is linked: platform/linux, platform/macos, or
// platform/fake for tests.
//
// Usual sequence: SCPreferencesCreateWithAuthorization; change services (all in memory); SCPreferencesCommitChanges,
// SCPreferencesApplyChanges; SCNetworkConnectionCreateWithServiceID, ...ScheduleWithRunLoop, ...Start; CFRunLoopRun,
// callbacks.
//
// Ownership: a reference is a shared pointer; a "Create" or "Copy" result is released when the last copy goes. A
// service, interface or protocol keeps its preferences alive. An empty pointer, optional or null Value is what a null
// reference is elsewhere.
//
// SCError(): per thread. A call that fails sets it; a call that succeeds leaves it alone, except those named below that
// clear it first. A null argument makes a call fail, and sets kSCStatusInvalidArgument only if SCError() is 0: the
// first cause of a chain of failures survives.
//
// Thread rule: one thread (the one that owns the run loop) for everything, except SCError, SCErrorString and
// SCNetworkConnectionStop, which any thread may call.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Value.h"
#include "platform/RunLoop.h"
#include "platform/Security.h"

namespace platform {

// ---- Errors
// ---------------------------------------------------------------------------------------------------------------

enum : std::int32_t {
  kSCStatusOK = 0,
  kSCStatusFailed = 1001,
  kSCStatusInvalidArgument = 1002,
  kSCStatusAccessError = 1003,
  kSCStatusNoKey = 1004,
  kSCStatusKeyExists = 1005,
  kSCStatusLocked = 1006,
  kSCStatusNeedLock = 1007,
  kSCStatusNoStoreSession = 2001,
  kSCStatusNoStoreServer = 2002,
  kSCStatusNotifierActive = 2003,
  kSCStatusNoPrefsSession = 3001,
  kSCStatusPrefsBusy = 3002,
  kSCStatusNoConfigFile = 3003,
  kSCStatusNoLink = 3004,
  kSCStatusStale = 3005,
  kSCStatusMaxLink = 3006,
  kSCStatusReachabilityUnknown = 4001,
  kSCStatusConnectionNoService = 5001,
  kSCStatusConnectionIgnore = 5002,
};

// The error of this thread's last failed call; 0 when none failed.
std::int32_t SCError();
// The text of a status: a short phrase for the codes above, the system's errno text for 1 to 106 (so that an exit
// status of the PPP daemon prints as one), "Unknown error: N" otherwise. Never fails.
std::string SCErrorString(std::int32_t status);

// ---- Constants: the strings behind them are what the preferences file holds
// ------------------------------------------------

inline const std::string kSCEntNetPPP = "PPP";
inline const std::string kSCEntNetIPv4 = "IPv4";
inline const std::string kSCEntNetIPSec = "IPSec";

inline const std::string kSCNetworkInterfaceTypePPTP = "PPTP";
inline const std::string kSCNetworkInterfaceTypeL2TP = "L2TP";
inline const std::string kSCNetworkInterfaceTypePPP = "PPP";

inline const std::string kSCPropNetOverridePrimary = "OverridePrimary";
inline const std::string kSCPropNetPPPAuthName = "AuthName";
inline const std::string kSCPropNetPPPAuthPassword = "AuthPassword";
inline const std::string kSCPropNetPPPAuthPasswordEncryption = "AuthPasswordEncryption";
inline const std::string kSCValNetPPPAuthPasswordEncryptionKeychain = "Keychain";
inline const std::string kSCPropNetPPPCommRemoteAddress = "CommRemoteAddress";
inline const std::string kSCPropNetPPPStatus = "Status";
inline const std::string kSCPropNetIPSecAuthenticationMethod = "AuthenticationMethod";
inline const std::string kSCValNetIPSecAuthenticationMethodSharedSecret = "SharedSecret";
inline const std::string kSCPropNetIPSecSharedSecret = "SharedSecret";
inline const std::string kSCPropNetIPSecSharedSecretEncryption = "SharedSecretEncryption";
inline const std::string kSCValNetIPSecSharedSecretEncryptionKeychain = "Keychain";

// ---- Preferences
// ------------------------------------------------------------------------------------------------------------

using SCPreferencesRef = std::shared_ptr<struct SCPreferences>;
using SCNetworkServiceRef = std::shared_ptr<struct SCNetworkService>;
using SCNetworkInterfaceRef = std::shared_ptr<struct SCNetworkInterface>;
using SCNetworkProtocolRef = std::shared_ptr<struct SCNetworkProtocol>;
using SCNetworkSetRef = std::shared_ptr<struct SCNetworkSet>;

// Opens a session on the preferences that PREFS_ID names (none: the system's network preferences; nothing else is
// supported here), using the right that AUTHORIZATION carries. NAME says who asks. Nothing is read yet. Clears
// SCError(). Empty when there is no authorization or its helper is gone (kSCStatusNoPrefsSession).
SCPreferencesRef SCPreferencesCreateWithAuthorization(const std::string &name,
                                                      const std::optional<std::string> &prefsID,
                                                      const AuthorizationRef &authorization);
// Writes the session's changes, if there are any, as one atomic replacement. kSCStatusStale when somebody else has
// written since these were first read; kSCStatusPrefsBusy when another session holds the lock; kSCStatusAccessError
// without rights. Blocks for the write.
bool SCPreferencesCommitChanges(const SCPreferencesRef &preferences);
// Tells the system that committed changes are to take effect. Blocks for a round trip.
bool SCPreferencesApplyChanges(const SCPreferencesRef &preferences);
// Forgets what was read: the next look reads anew.
void SCPreferencesSynchronize(const SCPreferencesRef &preferences);

// Every service of the preferences, in the file's order of identifiers. None when the preferences cannot be read
// (kSCStatusAccessError, kSCStatusFailed ...); a system without a preferences file has no services, which is an empty
// array. Reads the preferences on first use (blocks).
std::optional<std::vector<SCNetworkServiceRef>> SCNetworkServiceCopyAll(const SCPreferencesRef &preferences);
// A new service for INTERFACE (the topmost layer), with a fresh identifier, in no set yet. Empty on failure; clears
// SCError().
SCNetworkServiceRef SCNetworkServiceCreate(const SCPreferencesRef &preferences, const SCNetworkInterfaceRef &interface);
// The service leaves the preferences and every set.
bool SCNetworkServiceRemove(const SCNetworkServiceRef &service);
// The user-visible name; none when the service has none.
std::optional<std::string> SCNetworkServiceGetName(const SCNetworkServiceRef &service);
// kSCStatusKeyExists when another service of a set this service is in bears the name.
bool SCNetworkServiceSetName(const SCNetworkServiceRef &service, const std::string &name);
// Adds the default protocols (DNS, IPv4, IPv6, Proxies) and the interface's default configuration.
bool SCNetworkServiceEstablishDefaultConfiguration(const SCNetworkServiceRef &service);
// The identifier: an upper-case UUID. None for an empty reference.
std::optional<std::string> SCNetworkServiceGetServiceID(const SCNetworkServiceRef &service);
SCNetworkInterfaceRef SCNetworkServiceGetInterface(const SCNetworkServiceRef &service);
// The protocol of TYPE ("IPv4"); empty with kSCStatusNoKey when the service has none.
SCNetworkProtocolRef SCNetworkServiceCopyProtocol(const SCNetworkServiceRef &service, const std::string &type);

// The protocol's configuration, a dictionary; a null Value when it has none.
vpnctl::Value SCNetworkProtocolGetConfiguration(const SCNetworkProtocolRef &protocol);
// Replaces the whole dictionary. kSCStatusInvalidArgument for what no property list can hold, as in the calls below.
bool SCNetworkProtocolSetConfiguration(const SCNetworkProtocolRef &protocol, const vpnctl::Value &configuration);

// The bottom layer that everything stands on.
extern const SCNetworkInterfaceRef kSCNetworkInterfaceIPv4;
// A new layer of TYPE on INTERFACE. Empty with kSCStatusInvalidArgument when the layers do not fit (PPTP and L2TP stand
// on IPv4, PPP on either of them), with kSCStatusConnectionIgnore for PPTP where the system has none, which a line on
// the console says. Clears SCError().
SCNetworkInterfaceRef SCNetworkInterfaceCreateWithInterface(const SCNetworkInterfaceRef &interface,
                                                            const std::string &type);
// The configuration of the layer's own type, a dictionary; a null Value when there is none.
vpnctl::Value SCNetworkInterfaceGetConfiguration(const SCNetworkInterfaceRef &interface);
// Replaces the whole dictionary; an empty one removes it.
bool SCNetworkInterfaceSetConfiguration(const SCNetworkInterfaceRef &interface, const vpnctl::Value &configuration);
// A configuration beside the layer's own. "IPSec" is accepted only on PPP over L2TP (kSCStatusInvalidArgument
// otherwise).
bool SCNetworkInterfaceSetExtendedConfiguration(const SCNetworkInterfaceRef &interface, const std::string &extendedType,
                                                const vpnctl::Value &configuration);

// The set in use; empty when there is none.
SCNetworkSetRef SCNetworkSetCopyCurrent(const SCPreferencesRef &preferences);
// Adds a service at the end of the set's order. It does not rename: two services of a set may bear one name.
bool SCNetworkSetAddService(const SCNetworkSetRef &set, const SCNetworkServiceRef &service);

// ---- Connections
// ------------------------------------------------------------------------------------------------------------

using SCNetworkConnectionRef = std::shared_ptr<struct SCNetworkConnection>;

using SCNetworkConnectionStatus = std::int32_t;
enum : SCNetworkConnectionStatus {
  kSCNetworkConnectionInvalid = -1,
  kSCNetworkConnectionDisconnected = 0,
  kSCNetworkConnectionConnecting = 1,
  kSCNetworkConnectionConnected = 2,
  kSCNetworkConnectionDisconnecting = 3,
};

using SCNetworkConnectionPPPStatus = std::int32_t;
enum : SCNetworkConnectionPPPStatus {
  kSCNetworkConnectionPPPDisconnected = 0,
  kSCNetworkConnectionPPPInitializing = 1,
  kSCNetworkConnectionPPPConnectingLink = 2,
  kSCNetworkConnectionPPPDialOnTraffic = 3,
  kSCNetworkConnectionPPPNegotiatingLink = 4,
  kSCNetworkConnectionPPPAuthenticating = 5,
  kSCNetworkConnectionPPPWaitingForCallBack = 6,
  kSCNetworkConnectionPPPNegotiatingNetwork = 7,
  kSCNetworkConnectionPPPConnected = 8,
  kSCNetworkConnectionPPPTerminating = 9,
  kSCNetworkConnectionPPPDisconnectingLink = 10,
  kSCNetworkConnectionPPPHoldingLinkOff = 11,
  kSCNetworkConnectionPPPSuspended = 12,
  kSCNetworkConnectionPPPWaitingForRedial = 13,
};

using SCNetworkConnectionCallBack = void (*)(SCNetworkConnectionRef connection, SCNetworkConnectionStatus status,
                                             void *info);

struct SCNetworkConnectionContext {
  std::int64_t version = 0;
  void *info = nullptr;  // not owned: it must outlive the connection
  // Called on info when the connection is made and when it goes, where given.
  const void *(*retain)(const void *info) = nullptr;
  void (*release)(const void *info) = nullptr;
  std::string (*copyDescription)(const void *info) = nullptr;
};

// A connection object for the service. A service that does not exist is noticed only at the start. Empty with
// kSCStatusInvalidArgument (if SCError() is 0) when SERVICE_ID is none. Clears SCError() otherwise.
SCNetworkConnectionRef SCNetworkConnectionCreateWithServiceID(const std::optional<std::string> &serviceID,
                                                              SCNetworkConnectionCallBack callback,
                                                              const SCNetworkConnectionContext &context);
// The status of the last change that was delivered (inside a callback: of the change it tells), without blocking. macOS
// is asked for the present one, which may block.
SCNetworkConnectionStatus SCNetworkConnectionGetStatus(const SCNetworkConnectionRef &connection);
// A dictionary of that same moment with "PPP" {Status, LastCause, DeviceLastCause, ...} and, when up, "IPv4"
// {Addresses, ...}. A null Value when there is none. Blocks as the one before.
vpnctl::Value SCNetworkConnectionCopyExtendedStatus(const SCNetworkConnectionRef &connection);
// Callbacks arrive on the thread that runs RUN_LOOP; MODE is kCFRunLoopDefaultMode. Learns whether the service is up
// already, which blocks for a round trip. Clears SCError().
bool SCNetworkConnectionScheduleWithRunLoop(const SCNetworkConnectionRef &connection, const CFRunLoopRef &runLoop,
                                            const std::string &mode);
// Starts the service; returns when it has been accepted, everything else comes as status changes. USER_OPTIONS is a
// dictionary or null. Without LINGER the connection ends with this process. kSCStatusConnectionNoService for an unknown
// service, kSCStatusInvalidArgument for options that change where its secrets go or how, kSCStatusAccessError for
// LINGER from whom is not root, kSCStatusNoStoreServer when the helper is gone. Clears SCError().
bool SCNetworkConnectionStart(const SCNetworkConnectionRef &connection, const vpnctl::Value &userOptions, bool linger);
// Asks for the end and returns at once; what comes of it arrives as status changes. Remembered if it comes before the
// start. Any thread. False only for an empty reference.
bool SCNetworkConnectionStop(const SCNetworkConnectionRef &connection, bool forceDisconnect);

}  // namespace platform
