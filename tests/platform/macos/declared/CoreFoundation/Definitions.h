// Included once where it counts, and once more inside of a namespace by tools/check-macos: no guard.

typedef unsigned char Boolean;
typedef unsigned char UInt8;
typedef int SInt32;
typedef unsigned int UInt32;
typedef SInt32 OSStatus;
typedef UInt32 FourCharCode;

typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef double CFAbsoluteTime;
typedef UInt32 CFStringEncoding;

typedef const void *CFTypeRef;
typedef const struct __CFAllocator *CFAllocatorRef;
typedef const struct __CFString *CFStringRef;
typedef const struct __CFNumber *CFNumberRef;
typedef const struct __CFBoolean *CFBooleanRef;
typedef const struct __CFData *CFDataRef;
typedef const struct __CFDate *CFDateRef;
typedef const struct __CFArray *CFArrayRef;
typedef const struct __CFDictionary *CFDictionaryRef;
typedef struct __CFArray *CFMutableArrayRef;
typedef struct __CFDictionary *CFMutableDictionaryRef;
typedef struct __CFRunLoop *CFRunLoopRef;

enum CFNumberType : CFIndex {
  kCFNumberSInt32Type = 3,
  kCFNumberSInt64Type = 4,
  kCFNumberIntType = 9,
  kCFNumberDoubleType = 13,
};

enum : CFStringEncoding {
  kCFStringEncodingUTF8 = 0x08000100,
};

struct CFRange {
  CFIndex location;
  CFIndex length;
};

struct CFArrayCallBacks {
  CFIndex version;
  const void *(*retain)(CFAllocatorRef allocator, const void *value);
  void (*release)(CFAllocatorRef allocator, const void *value);
  CFStringRef (*copyDescription)(const void *value);
  Boolean (*equal)(const void *one, const void *other);
};

struct CFDictionaryKeyCallBacks {
  CFIndex version;
  const void *(*retain)(CFAllocatorRef allocator, const void *value);
  void (*release)(CFAllocatorRef allocator, const void *value);
  CFStringRef (*copyDescription)(const void *value);
  Boolean (*equal)(const void *one, const void *other);
  unsigned long (*hash)(const void *value);
};

struct CFDictionaryValueCallBacks {
  CFIndex version;
  const void *(*retain)(CFAllocatorRef allocator, const void *value);
  void (*release)(CFAllocatorRef allocator, const void *value);
  CFStringRef (*copyDescription)(const void *value);
  Boolean (*equal)(const void *one, const void *other);
};
