// Included once where it counts, and once more inside of a namespace by tools/check-macos: no guard.

typedef const struct AuthorizationOpaqueRef *AuthorizationRef;
typedef UInt32 AuthorizationFlags;

enum : AuthorizationFlags {
  kAuthorizationFlagDefaults = 0,
  kAuthorizationFlagInteractionAllowed = 1,
  kAuthorizationFlagExtendRights = 2,
  kAuthorizationFlagPartialRights = 4,
  kAuthorizationFlagDestroyRights = 8,
  kAuthorizationFlagPreAuthorize = 16,
};

struct AuthorizationItem {
  const char *name;
  size_t valueLength;
  void *value;
  UInt32 flags;
};

struct AuthorizationItemSet {
  UInt32 count;
  AuthorizationItem *items;
};
typedef AuthorizationItemSet AuthorizationRights;
typedef AuthorizationItemSet AuthorizationEnvironment;

typedef struct __SecKeychain *SecKeychainRef;
typedef struct __SecKeychainItem *SecKeychainItemRef;
typedef struct __SecKeychainSearch *SecKeychainSearchRef;
typedef struct __SecTrustedApplication *SecTrustedApplicationRef;
typedef struct __SecAccess *SecAccessRef;

enum SecPreferencesDomain {
  kSecPreferencesDomainUser = 0,
  kSecPreferencesDomainSystem = 1,
};

enum SecItemClass : FourCharCode {
  kSecGenericPasswordItemClass = 0x67656e70,  // "genp"
};

enum : FourCharCode {
  kSecLabelItemAttr = 0x6c61626c,        // "labl"
  kSecAccountItemAttr = 0x61636374,      // "acct"
  kSecServiceItemAttr = 0x73766365,      // "svce"
  kSecDescriptionItemAttr = 0x64657363,  // "desc"
};

enum : OSStatus {
  errSecSuccess = 0,
  errSecParam = -50,
  errSecNotAvailable = -25291,
  errSecAuthFailed = -25293,
  errSecNoSuchKeychain = -25294,
  errSecInvalidKeychain = -25295,
  errSecDuplicateItem = -25299,
  errSecItemNotFound = -25300,
  errSecNoDefaultKeychain = -25307,
  errSecInteractionNotAllowed = -25308,
};

struct SecKeychainAttribute {
  UInt32 tag;
  UInt32 length;
  void *data;
};

struct SecKeychainAttributeList {
  UInt32 count;
  SecKeychainAttribute *attr;
};
