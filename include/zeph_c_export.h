/* Export and linkage macros shared by every public header of zeph. */
#ifndef ZEPH_C_EXPORT_H
#define ZEPH_C_EXPORT_H

#if defined(ZEPH_BUILDING_LIBRARY)
#define ZEPH_API __attribute__((visibility("default")))
#else
#define ZEPH_API
#endif

#ifdef __cplusplus
#define ZEPH_BEGIN_DECLS extern "C" {
#define ZEPH_END_DECLS   }
#else
#define ZEPH_BEGIN_DECLS
#define ZEPH_END_DECLS
#endif

#endif
