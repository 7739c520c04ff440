// The device's working key. It is kept nowhere in clear: the profile holds it enciphered, and the key table file
// ("table2.key" in the configuration directory) holds the lookup tables that decipher it (see docs/security.md).
#pragma once

// Deciphers the 16 bytes of `input` into `output`, which the caller wipes after use. 0, or -1 (logged): no table file,
// a damaged one, or one that was not made for this key.
int ymgrm_decrypt_working(const unsigned char *input, unsigned char *output);
