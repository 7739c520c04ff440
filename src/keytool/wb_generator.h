// Makes the lookup tables of a key (ymgrd/crypto/wb_table.h). Only the tool has this: a daemon needs the tables alone.
#pragma once

#include "ymgrd/crypto/wb_table.h"

// Tables that decrypt under the AES-128 key, with fresh random maps and encodings: two calls never give the same ones.
// 0, or -1 when the system has no random numbers. Takes some ten milliseconds.
int wb_generate_tables(const unsigned char *key, wb_tables_t *ret_tables);
