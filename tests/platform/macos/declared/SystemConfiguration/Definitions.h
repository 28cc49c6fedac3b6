// Included once where it counts, and once more inside of a namespace by tools/check-macos: no guard.

typedef const struct __SCPreferences *SCPreferencesRef;
typedef const struct __SCNetworkService *SCNetworkServiceRef;
typedef const struct __SCNetworkInterface *SCNetworkInterfaceRef;
typedef const struct __SCNetworkProtocol *SCNetworkProtocolRef;
typedef const struct __SCNetworkSet *SCNetworkSetRef;
typedef const struct __SCNetworkConnection *SCNetworkConnectionRef;

enum SCNetworkConnectionStatus : SInt32 {
  kSCNetworkConnectionInvalid = -1,
  kSCNetworkConnectionDisconnected = 0,
  kSCNetworkConnectionConnecting = 1,
  kSCNetworkConnectionConnected = 2,
  kSCNetworkConnectionDisconnecting = 3,
};

enum SCNetworkConnectionPPPStatus : SInt32 {
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

enum {
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

struct SCNetworkConnectionContext {
  CFIndex version;
  void *info;
  const void *(*retain)(const void *info);
  void (*release)(const void *info);
  CFStringRef (*copyDescription)(const void *info);
};

typedef void (*SCNetworkConnectionCallBack)(SCNetworkConnectionRef connection, SCNetworkConnectionStatus status,
                                            void *info);
