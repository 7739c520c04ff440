#include "ymgrd/crypto/working_key.h"
#include <cstring>
int ymgrm_decrypt_working(const unsigned char *input, unsigned char *output)
{
  std::memcpy(output, input, 16);
  return 0;
}
