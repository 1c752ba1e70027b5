/*
 * datafile: the JSON files of $LUMD_PLATFORM_DIR (default /etc/lumd) that the open factorydata,
 * krds and antcfg answer from. Part of those three; nobody else includes it.
 */
#ifndef PLATFORM_DATAFILE_H
#define PLATFORM_DATAFILE_H

#include "cfgtree.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { DATAFILE_MAX_BYTES = 1024 * 1024 };

/* The object in the file `name`, owned by the caller (cfgtree_release). Null, with one error line,
 * when the file cannot be read, is longer than DATAFILE_MAX_BYTES or holds no JSON object. Any
 * thread. */
cfgtree_node* datafile_load(const char* name);

/* The scalar member `name` as an integer: 0 and `*value`, which is left alone when there is no such
 * member; -1 when it is no integer. */
int datafile_get_int(const cfgtree_node* node, const char* name, int* value);

#ifdef __cplusplus
}
#endif

#endif
