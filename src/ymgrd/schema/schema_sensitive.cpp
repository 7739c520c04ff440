#include "ymgrd/schema/schema_sensitive.h"
int schema_protect_sensitive()
{
  return 0;
}
void schema_unprotect_sensitive() {}
bool schema_is_sensitive(const lysc_node *)
{
  return false;
}
bool schema_is_sensitive(std::string_view)
{
  return false;
}
bool schema_check_sensitive(const lysc_node *, std::string_view, wiped_string *)
{
  return true;
}
