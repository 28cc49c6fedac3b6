// Included once where it counts, and once more inside of a namespace by tools/check-macos: no guard.

struct dispatch_object_s {};
struct dispatch_queue_s : dispatch_object_s {};
struct dispatch_queue_global_s : dispatch_queue_s {};
struct dispatch_source_s : dispatch_object_s {};
typedef dispatch_object_s *dispatch_object_t;
typedef dispatch_queue_s *dispatch_queue_t;
typedef dispatch_queue_global_s *dispatch_queue_global_t;
typedef dispatch_source_s *dispatch_source_t;
typedef struct dispatch_queue_attr_s *dispatch_queue_attr_t;
typedef const struct dispatch_source_type_s *dispatch_source_type_t;
typedef void (*dispatch_function_t)(void *context);
