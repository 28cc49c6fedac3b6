// The wire between the tool's side and vpnctl-helper: peer-to-peer D-Bus on a socket pair, no bus daemon. The tool's
// end is the client; the helper gets its end as descriptor 0, is the server, and ends when it closes.
//
// Every method answers; a failure the caller can act on is a code in the answer, a D-Bus error means that the call
// itself was malformed. Property lists travel as XML bytes ("ay"). Secrets are "ay" in messages marked sensitive
// (sd-bus wipes them).
//
// A tool that is not root's is answered nothing but Ping and Authorize before that has granted it the rest.
//
//   Authorize(i flags)                    -> i status
//       flags: as Messages.h has them. status: an OSStatus code of the authorization services. Answers when the
//       person has. Root has the right from the beginning.
//   TellOfReadableSecrets(ay path)        -> i 0
//       For the log: everybody may read that file, and it holds secrets.
//   ReadPreferences()                     -> i error, ay propertyList, ay signature
//       error: an SCError code. An empty propertyList is a system without a preferences file. signature is opaque.
//   CommitPreferences(ay propertyList, ay signature) -> i error, ay signature
//       Replaces the file atomically if its signature is still the given one (empty: do not compare); kSCStatusStale
//       otherwise. Takes the lock for the write: kSCStatusPrefsBusy when another holds it.
//   ApplyPreferences()                    -> i error
//   AddKeychainItem(a(uay) attributes, ay secret, s accessDescription, as trustedPaths) -> i status, s item
//   FindKeychainItems(a(uay) attributes)  -> i status, as items
//   DeleteKeychainItem(s item)            -> i status
//       status: an OSStatus code. attributes: four-character tag and bytes. A new item's secret goes to nothing but
//       links of the service that names the item at that moment, started by the same user; see SecretUse.h.
//   StartLink(s serviceID, ay userOptions, b linger) -> i error
//       userOptions: a property list {entity: {key: value}} that is laid over the service for this start, or no bytes.
//       kSCStatusInvalidArgument where they say otherwise than the service what a start has no say in. One link per
//       helper: kSCStatusFailed while one is up. kSCStatusConnectionNoService for an unknown service. linger: the link
//       outlives the socket; kSCStatusAccessError for whom is not root.
//   StopLink(s serviceID, b force)        -> i error
//   LinkStatus(s serviceID)               -> i status, i error, ay extendedStatus
//   signal LinkStatusChanged(s serviceID, i status, i error, ay extendedStatus)
//       The whole state at one moment: SCNetworkConnectionStatus, the SCError() for the callback, the extended status.

#pragma once

namespace wire {

inline constexpr char kObjectPath[] = "/vpnctl/Helper";
inline constexpr char kInterface[] = "vpnctl.Helper1";

inline constexpr char kAuthorize[] = "Authorize";
inline constexpr char kTellOfReadableSecrets[] = "TellOfReadableSecrets";
inline constexpr char kReadPreferences[] = "ReadPreferences";
inline constexpr char kCommitPreferences[] = "CommitPreferences";
inline constexpr char kApplyPreferences[] = "ApplyPreferences";
inline constexpr char kAddKeychainItem[] = "AddKeychainItem";
inline constexpr char kFindKeychainItems[] = "FindKeychainItems";
inline constexpr char kDeleteKeychainItem[] = "DeleteKeychainItem";
inline constexpr char kStartLink[] = "StartLink";
inline constexpr char kStopLink[] = "StopLink";
inline constexpr char kLinkStatus[] = "LinkStatus";
inline constexpr char kLinkStatusChanged[] = "LinkStatusChanged";

}  // namespace wire
