// Hash table from names to blocks of bytes. The table owns copies of both.
#pragma once

typedef struct _conf_hash_tbl conf_hash_tbl_t;

conf_hash_tbl_t *conf_hash_create(int num_buckets);
void conf_hash_destroy(conf_hash_tbl_t *table);
// Replaces the value of an existing name. 0 or -1.
int conf_hash_add(conf_hash_tbl_t *table, const char *name, const void *data, int length);
// The stored bytes (aligned for any type), valid until the next add or del of that name; null when there are none.
void *conf_hash_get(const conf_hash_tbl_t *table, const char *name, int *ret_length);
int conf_hash_del(conf_hash_tbl_t *table, const char *name); // 0, or -1 when there is no such name
