// Compared with the system's own by tools/check-macos, where somebody has them: no guard, and nothing but declarations.

extern "C" {

OSStatus AuthorizationCreate(const AuthorizationRights *rights, const AuthorizationEnvironment *environment,
                             AuthorizationFlags flags, AuthorizationRef *authorization);
OSStatus AuthorizationCopyRights(AuthorizationRef authorization, const AuthorizationRights *rights,
                                 const AuthorizationEnvironment *environment, AuthorizationFlags flags,
                                 AuthorizationRights **authorizedRights);
OSStatus AuthorizationFree(AuthorizationRef authorization, AuthorizationFlags flags);
OSStatus AuthorizationFreeItemSet(AuthorizationItemSet *set);
OSStatus SecKeychainCopyDomainDefault(SecPreferencesDomain domain, SecKeychainRef *keychain);
OSStatus SecKeychainSearchCreateFromAttributes(CFTypeRef keychainOrArray, SecItemClass itemClass,
                                               const SecKeychainAttributeList *attributes,
                                               SecKeychainSearchRef *search);
OSStatus SecKeychainSearchCopyNext(SecKeychainSearchRef search, SecKeychainItemRef *item);
OSStatus SecKeychainItemDelete(SecKeychainItemRef item);
OSStatus SecKeychainItemCreateFromContent(SecItemClass itemClass, SecKeychainAttributeList *attributes, UInt32 length,
                                          const void *data, SecKeychainRef keychain, SecAccessRef access,
                                          SecKeychainItemRef *item);
OSStatus SecTrustedApplicationCreateFromPath(const char *path, SecTrustedApplicationRef *application);
OSStatus SecAccessCreate(CFStringRef descriptor, CFArrayRef trustedList, SecAccessRef *access);

}  // extern "C"
