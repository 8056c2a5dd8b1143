/*
 * xel_hash.h - hash table of lists, keyed by strings (libxelbase.so).
 *
 * The table has no lock: its owner serialises all calls. It allocates with the functions that it is
 * given: table, nodes and key copies with alloc; nodes and the table go back through release, keys
 * through release2.
 */
#ifndef XEL_HASH_H
#define XEL_HASH_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/* Description of a table; read during creation only. */
typedef struct XelHashDllParam {
    uint32_t bucketCount;
    uint32_t (*hash)(const void* key);              /* reduced modulo bucketCount by the table */
    int32_t (*match)(const void* a, const void* b); /* 0 when equal */
    void* (*alloc)(size_t size);
    void (*release)(void* block); /* nodes and the table */
    void (*release2)(void* key);  /* key copies */
} XelHashDllParam;

/*
 * Returns: the table, or null when a field of params is missing, bucketCount is 0 or there is no
 * memory.
 */
XEL_API void* XelHashDllTblCreate(const XelHashDllParam* params);

/* Frees the table, its nodes and keys; the entries stay the caller's. Null does nothing. */
XEL_API void XelHashDllTblDestroy(void* table);

/*
 * Puts entry under a copy of key.
 * Returns: 0; 0xFFFFFFFF for null arguments, an existing key or no memory (nothing changed).
 */
XEL_API uint32_t XelHashDllEntryAdd(void* table, const char* key, void* entry);

/* Removes key. Returns: 0; 0xFFFFFFFF for null arguments or an unknown key. */
XEL_API uint32_t XelHashDllEntryDel(void* table, const char* key);

/* Returns: the entry under key, or null. */
XEL_API void* XelHashDllEntryLkup(void* table, const char* key);

XEL_EXTERN_C_END

#endif /* XEL_HASH_H */
