#include "ymgrd/crypto/encrypt_registry.h"
int encrypt_add_ns_prefix(const char *, const char *, const char *)
{
  return 0;
}
void encrypt_delete_sensitive(const char *) {}
bool encrypt_has_sensitive()
{
  return false;
}
std::vector<const sensitive_config_t *> encrypt_sensitives()
{
  return {};
}
const sensitive_config_t *encrypt_find_sensitive(std::string_view)
{
  return nullptr;
}
