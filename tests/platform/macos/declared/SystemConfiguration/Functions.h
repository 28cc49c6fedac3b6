// Compared with the system's own by tools/check-macos, where somebody has them: no guard, and nothing but declarations.

// Declared outside of extern "C" there. No object before the framework's first use.
extern const SCNetworkInterfaceRef kSCNetworkInterfaceIPv4;

extern "C" {

int SCError();
const char *SCErrorString(int status);
SCPreferencesRef SCPreferencesCreateWithAuthorization(CFAllocatorRef allocator, CFStringRef name, CFStringRef prefsID,
                                                      AuthorizationRef authorization);
Boolean SCPreferencesCommitChanges(SCPreferencesRef preferences);
Boolean SCPreferencesApplyChanges(SCPreferencesRef preferences);
void SCPreferencesSynchronize(SCPreferencesRef preferences);
CFArrayRef SCNetworkServiceCopyAll(SCPreferencesRef preferences);
SCNetworkServiceRef SCNetworkServiceCreate(SCPreferencesRef preferences, SCNetworkInterfaceRef interface);
Boolean SCNetworkServiceRemove(SCNetworkServiceRef service);
CFStringRef SCNetworkServiceGetName(SCNetworkServiceRef service);
Boolean SCNetworkServiceSetName(SCNetworkServiceRef service, CFStringRef name);
Boolean SCNetworkServiceEstablishDefaultConfiguration(SCNetworkServiceRef service);
CFStringRef SCNetworkServiceGetServiceID(SCNetworkServiceRef service);
SCNetworkInterfaceRef SCNetworkServiceGetInterface(SCNetworkServiceRef service);
SCNetworkProtocolRef SCNetworkServiceCopyProtocol(SCNetworkServiceRef service, CFStringRef type);
CFDictionaryRef SCNetworkProtocolGetConfiguration(SCNetworkProtocolRef protocol);
Boolean SCNetworkProtocolSetConfiguration(SCNetworkProtocolRef protocol, CFDictionaryRef configuration);
SCNetworkInterfaceRef SCNetworkInterfaceCreateWithInterface(SCNetworkInterfaceRef interface, CFStringRef type);
CFDictionaryRef SCNetworkInterfaceGetConfiguration(SCNetworkInterfaceRef interface);
Boolean SCNetworkInterfaceSetConfiguration(SCNetworkInterfaceRef interface, CFDictionaryRef configuration);
Boolean SCNetworkInterfaceSetExtendedConfiguration(SCNetworkInterfaceRef interface, CFStringRef extendedType,
                                                   CFDictionaryRef configuration);
SCNetworkSetRef SCNetworkSetCopyCurrent(SCPreferencesRef preferences);
Boolean SCNetworkSetAddService(SCNetworkSetRef set, SCNetworkServiceRef service);
SCNetworkConnectionRef SCNetworkConnectionCreateWithServiceID(CFAllocatorRef allocator, CFStringRef serviceID,
                                                              SCNetworkConnectionCallBack callback,
                                                              SCNetworkConnectionContext *context);
SCNetworkConnectionStatus SCNetworkConnectionGetStatus(SCNetworkConnectionRef connection);
CFDictionaryRef SCNetworkConnectionCopyExtendedStatus(SCNetworkConnectionRef connection);
Boolean SCNetworkConnectionScheduleWithRunLoop(SCNetworkConnectionRef connection, CFRunLoopRef runLoop,
                                               CFStringRef mode);
Boolean SCNetworkConnectionUnscheduleFromRunLoop(SCNetworkConnectionRef connection, CFRunLoopRef runLoop,
                                                 CFStringRef mode);
Boolean SCNetworkConnectionStart(SCNetworkConnectionRef connection, CFDictionaryRef userOptions, Boolean linger);
Boolean SCNetworkConnectionStop(SCNetworkConnectionRef connection, Boolean forceDisconnect);

}  // extern "C"
