// VEL_API marks what the library offers to applications: the shared library
// libvel.so.0 is built with hidden visibility and exports exactly the
// classes, functions and objects declared with it.
#ifndef VEL_EXPORT_H_
#define VEL_EXPORT_H_

#if defined(__GNUC__)
#define VEL_API __attribute__((visibility("default")))
#else
#define VEL_API
#endif

#endif  // VEL_EXPORT_H_
