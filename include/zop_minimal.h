/* Instrumentation API of libryl_xml.so: every function writes at most one
 * record into the calling thread's trace file. Usable from C99 and C++. */
#ifndef ZOP_MINIMAL_H
#define ZOP_MINIMAL_H

#include <stddef.h>

#if defined(_WIN32)
#define ZOP_API
#else
#define ZOP_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A domain groups the events of one component; one per distinct name. */
typedef struct ___zop_domain {
    int flags;          /* 1 at creation; callers may change it */
    const char* name;   /* private copy of the name */
    void* reserved1;
    void* reserved2;
    void* reserved3;
    void* reserved4;
} ___zop_domain;

/* An interned name; one per distinct name. */
typedef struct ___zop_string_handle {
    const char* name;   /* private copy of the name */
    void* reserved1;
    void* reserved2;
    void* reserved3;
    void* reserved4;
} ___zop_string_handle;

/* An id of a task, group, node or port: three words, recorded as given. */
typedef struct __zop_id {
    unsigned long long d1;
    unsigned long long d2;
    unsigned long long d3;
} __zop_id;

/* Record kinds: row numbers of the record catalogue. */
typedef enum __zop_record_t {
    __zop_record_definition = 0,
    __zop_record_api_version = 1,
    __zop_record_domain_createA = 2,
    __zop_record_domain_createW = 3,
    __zop_record_id_create = 4,
    __zop_record_id_destroy = 5,
    __zop_record_metadata = 6,
    __zop_record_metadata_stringA = 7,
    __zop_record_metadata_stringW = 8,
    __zop_record_relation = 9,
    __zop_record_string_handle_createA = 10,
    __zop_record_string_handle_createW = 11,
    __zop_record_task_begin = 12,
    __zop_record_task_end = 13,
    __zop_record_task_group = 14,
    __zop_record_region_begin = 15,
    __zop_record_region_end = 16,
    __zop_record_task_begin_async = 17,
    __zop_record_task_end_async = 18,
    __zop_record_end_of_records = 19
} __zop_record_t;

/* "Quillon Collector 0.02"; writes no record. */
ZOP_API const char* __zop_api_version(void);
/* Does nothing: files are finished at process exit or unload. */
ZOP_API void __zop_api_fini(void* reserved);

/* Domain and string-handle creation: same name, same handle; writes a record
 * on every call. A null name returns a null handle and writes nothing. */
ZOP_API ___zop_domain* __zop_domain_createA(const char* name);
ZOP_API ___zop_domain* __zop_domain_create(const char* name);
ZOP_API ___zop_string_handle* __zop_string_handle_createA(const char* name);
ZOP_API ___zop_string_handle* __zop_string_handle_create(const char* name);

/* Ids, tasks, regions and task groups. */
ZOP_API void __zop_id_create(const ___zop_domain* domain, __zop_id id);
ZOP_API void __zop_id_destroy(const ___zop_domain* domain, __zop_id id);
ZOP_API void __zop_task_begin(const ___zop_domain* domain, __zop_id taskid,
                              __zop_id parentid, ___zop_string_handle* name);
ZOP_API void __zop_task_begin_explicit(const ___zop_domain* domain, __zop_id taskid,
                                       __zop_id parentid, ___zop_string_handle* name);
ZOP_API void __zop_task_begin_async(const ___zop_domain* domain, __zop_id taskid,
                                    __zop_id parentid, ___zop_string_handle* name);
ZOP_API void __zop_task_end(const ___zop_domain* domain);
ZOP_API void __zop_task_end_explicit(const ___zop_domain* domain);
ZOP_API void __zop_task_end_async(const ___zop_domain* domain, __zop_id taskid);
ZOP_API void __zop_region_begin(const ___zop_domain* domain, __zop_id id,
                                __zop_id parentid, ___zop_string_handle* name);
ZOP_API void __zop_region_end(const ___zop_domain* domain, __zop_id id);
ZOP_API void __zop_task_group(const ___zop_domain* domain, __zop_id id,
                              __zop_id parentid, ___zop_string_handle* name);

/* Relations and metadata. Metadata is recorded only for count 1 and type 1
 * (a pointer-width value) or 3 (a 32-bit value). */
ZOP_API void __zop_relation_add(const ___zop_domain* domain, __zop_id head,
                                int relation, __zop_id tail);
ZOP_API void __zop_metadata_add(const ___zop_domain* domain, __zop_id id,
                                ___zop_string_handle* key, int type, size_t count,
                                void* data);
ZOP_API void __zop_metadata_str_addA(const ___zop_domain* domain, __zop_id id,
                                     ___zop_string_handle* key, const char* data,
                                     size_t length);
ZOP_API void __zop_metadata_str_add(const ___zop_domain* domain, __zop_id id,
                                    ___zop_string_handle* key, const char* data,
                                    size_t length);

#ifdef __cplusplus
}
#endif

#endif /* ZOP_MINIMAL_H */
