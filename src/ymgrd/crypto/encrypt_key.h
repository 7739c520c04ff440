// The device's working key, taken from the profile's database section.
#pragma once

#include "ymgrd/database/database_config.h"

// The working key in its stored, enciphered form; all zero before ymgrd_encrypt_key. Deciphered by its user at each
// use.
extern unsigned char g_aes_key[WORKING_KEY_LENGTH];

// Makes the key of the sensitive leaves ready: 0, or -1 when there is no database section or when sensitive leaves are
// configured but no key to protect them.
int ymgrd_encrypt_key();
