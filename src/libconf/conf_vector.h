// Arrays of entry pointers by index. Removing an entry empties its slot and shifts nothing.
#pragma once

typedef struct _conf_vector conf_vector_t;

conf_vector_t *conf_vector_create(int init_size); // null when memory is short or the size is negative
// Calls `free_func` (may be null) on each entry that is not null.
void conf_vector_destroy(conf_vector_t *vector, void (*free_func)(void *entry));
// Puts the entry into the lowest empty slot, growing when there is none. Its index, or -1. May move the vector.
int conf_vector_add(conf_vector_t **vector, void *entry);
void *conf_vector_get(const conf_vector_t *vector, int index); // null outside and for emptied slots
int conf_vector_remove(conf_vector_t *vector, int index);      // 0, or -1 when nothing is there
int conf_vector_size(const conf_vector_t *vector); // slots up to the last one ever used, emptied ones included
