// Numbers are handed on and back as they are: those of the platform API are the system's.

#include "platform/Dispatch.h"
#include "platform/Security.h"
#include "platform/SystemConfiguration.h"
#include "platform/macos/Frameworks.h"

#define IS_THE_SYSTEMS(name) static_assert(static_cast<long long>(platform::name) == static_cast<long long>(::name))

IS_THE_SYSTEMS(kSCStatusOK);
IS_THE_SYSTEMS(kSCStatusFailed);
IS_THE_SYSTEMS(kSCStatusInvalidArgument);
IS_THE_SYSTEMS(kSCStatusAccessError);
IS_THE_SYSTEMS(kSCStatusNoKey);
IS_THE_SYSTEMS(kSCStatusKeyExists);
IS_THE_SYSTEMS(kSCStatusLocked);
IS_THE_SYSTEMS(kSCStatusNeedLock);
IS_THE_SYSTEMS(kSCStatusNoStoreSession);
IS_THE_SYSTEMS(kSCStatusNoStoreServer);
IS_THE_SYSTEMS(kSCStatusNotifierActive);
IS_THE_SYSTEMS(kSCStatusNoPrefsSession);
IS_THE_SYSTEMS(kSCStatusPrefsBusy);
IS_THE_SYSTEMS(kSCStatusNoConfigFile);
IS_THE_SYSTEMS(kSCStatusNoLink);
IS_THE_SYSTEMS(kSCStatusStale);
IS_THE_SYSTEMS(kSCStatusMaxLink);
IS_THE_SYSTEMS(kSCStatusReachabilityUnknown);
IS_THE_SYSTEMS(kSCStatusConnectionNoService);
IS_THE_SYSTEMS(kSCStatusConnectionIgnore);

IS_THE_SYSTEMS(kSCNetworkConnectionInvalid);
IS_THE_SYSTEMS(kSCNetworkConnectionDisconnected);
IS_THE_SYSTEMS(kSCNetworkConnectionConnecting);
IS_THE_SYSTEMS(kSCNetworkConnectionConnected);
IS_THE_SYSTEMS(kSCNetworkConnectionDisconnecting);

IS_THE_SYSTEMS(kSCNetworkConnectionPPPDisconnected);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPInitializing);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPConnectingLink);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPDialOnTraffic);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPNegotiatingLink);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPAuthenticating);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPWaitingForCallBack);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPNegotiatingNetwork);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPConnected);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPTerminating);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPDisconnectingLink);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPHoldingLinkOff);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPSuspended);
IS_THE_SYSTEMS(kSCNetworkConnectionPPPWaitingForRedial);

IS_THE_SYSTEMS(kAuthorizationFlagDefaults);
IS_THE_SYSTEMS(kAuthorizationFlagInteractionAllowed);
IS_THE_SYSTEMS(kAuthorizationFlagExtendRights);
IS_THE_SYSTEMS(kAuthorizationFlagPartialRights);
IS_THE_SYSTEMS(kAuthorizationFlagDestroyRights);
IS_THE_SYSTEMS(kAuthorizationFlagPreAuthorize);

IS_THE_SYSTEMS(errSecSuccess);
IS_THE_SYSTEMS(errSecParam);
IS_THE_SYSTEMS(errSecNotAvailable);
IS_THE_SYSTEMS(errSecAuthFailed);
IS_THE_SYSTEMS(errSecNoSuchKeychain);
IS_THE_SYSTEMS(errSecInvalidKeychain);
IS_THE_SYSTEMS(errSecDuplicateItem);
IS_THE_SYSTEMS(errSecItemNotFound);
IS_THE_SYSTEMS(errSecNoDefaultKeychain);
IS_THE_SYSTEMS(errSecInteractionNotAllowed);

IS_THE_SYSTEMS(kSecPreferencesDomainUser);
IS_THE_SYSTEMS(kSecPreferencesDomainSystem);
IS_THE_SYSTEMS(kSecGenericPasswordItemClass);
IS_THE_SYSTEMS(kSecLabelItemAttr);
IS_THE_SYSTEMS(kSecAccountItemAttr);
IS_THE_SYSTEMS(kSecServiceItemAttr);
IS_THE_SYSTEMS(kSecDescriptionItemAttr);
