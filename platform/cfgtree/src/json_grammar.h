/* The grammar of JSON (RFC 8259). json-c reads more than that, and its strict mode differs from one
 * release to the next: 0.18 refuses texts that are not ASCII and numbers beyond 64 bits. */
#ifndef CFGTREE_JSON_GRAMMAR_H
#define CFGTREE_JSON_GRAMMAR_H

#include <stdbool.h>
#include <stddef.h>

/* Whether `len` bytes are one value of at most 32 levels, with white space around it at most. A
 * string may hold any byte in its raw form: a name on the air need not be UTF-8. */
bool json_is_well_formed(const char* data, size_t len);

#endif
