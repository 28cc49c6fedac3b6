// Compared with the system's own by tools/check-macos, where somebody has them: no guard, and nothing but declarations.

extern "C" {

extern const struct dispatch_source_type_s _dispatch_source_type_signal;

dispatch_queue_global_t dispatch_get_global_queue(intptr_t priority, uintptr_t flags);
dispatch_queue_t dispatch_queue_create(const char *label, dispatch_queue_attr_t attributes);
void dispatch_async_f(dispatch_queue_t queue, void *context, dispatch_function_t work);
dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle, uintptr_t mask,
                                         dispatch_queue_t queue);
void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler);
void dispatch_source_cancel(dispatch_source_t source);
void dispatch_set_context(dispatch_object_t object, void *context);
void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer);
void dispatch_resume(dispatch_object_t object);
void dispatch_release(dispatch_object_t object);

}  // extern "C"
