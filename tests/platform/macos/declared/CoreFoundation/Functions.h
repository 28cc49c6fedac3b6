// Compared with the system's own by tools/check-macos, where somebody has them: no guard, and nothing but declarations.

extern "C" {

extern const CFBooleanRef kCFBooleanTrue;
extern const CFBooleanRef kCFBooleanFalse;
extern const CFArrayCallBacks kCFTypeArrayCallBacks;
extern const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks;
extern const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks;
extern const CFStringRef kCFRunLoopDefaultMode;

CFTypeRef CFRetain(CFTypeRef object);
void CFRelease(CFTypeRef object);
CFTypeID CFGetTypeID(CFTypeRef object);
CFTypeID CFStringGetTypeID();
CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex size,
                                    CFStringEncoding encoding, Boolean external);
CFIndex CFStringGetLength(CFStringRef string);
CFIndex CFStringGetBytes(CFStringRef string, CFRange range, CFStringEncoding encoding, UInt8 lossByte, Boolean external,
                         UInt8 *buffer, CFIndex size, CFIndex *used);
CFTypeID CFNumberGetTypeID();
CFNumberRef CFNumberCreate(CFAllocatorRef allocator, CFNumberType type, const void *value);
Boolean CFNumberIsFloatType(CFNumberRef number);
Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void *value);
CFTypeID CFBooleanGetTypeID();
Boolean CFBooleanGetValue(CFBooleanRef boolean);
CFTypeID CFDataGetTypeID();
CFDataRef CFDataCreate(CFAllocatorRef allocator, const UInt8 *bytes, CFIndex size);
CFIndex CFDataGetLength(CFDataRef data);
const UInt8 *CFDataGetBytePtr(CFDataRef data);
CFTypeID CFDateGetTypeID();
CFDateRef CFDateCreate(CFAllocatorRef allocator, CFAbsoluteTime time);
CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date);
CFTypeID CFArrayGetTypeID();
CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef allocator, CFIndex capacity, const CFArrayCallBacks *callBacks);
void CFArrayAppendValue(CFMutableArrayRef array, const void *value);
CFIndex CFArrayGetCount(CFArrayRef array);
const void *CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);
CFTypeID CFDictionaryGetTypeID();
CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef allocator, CFIndex capacity,
                                                 const CFDictionaryKeyCallBacks *keys,
                                                 const CFDictionaryValueCallBacks *values);
void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void *key, const void *value);
CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary);
void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void **keys, const void **values);
CFRunLoopRef CFRunLoopGetCurrent();
void CFRunLoopRun();
void CFRunLoopStop(CFRunLoopRef runLoop);

}  // extern "C"
