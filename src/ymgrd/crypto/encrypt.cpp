#include "ymgrd/crypto/encrypt.h"

namespace {
encrypt_hooks_t encrypt_hooks = {};
}

void encrypt_set_hooks(const encrypt_hooks_t &hooks)
{
  encrypt_hooks = hooks;
}

int decrypt_sensitive(std::string_view cipher_text, wiped_string *ret_value)
{
  if (encrypt_hooks.decrypt != nullptr) {
    return encrypt_hooks.decrypt(cipher_text, ret_value);
  }
  ret_value->assign(cipher_text);
  return 0;
}

int security_find_sensitive_in_rpc(const char *oper, lyxml_elem *rpc)
{
  return encrypt_hooks.find_in_rpc == nullptr ? 0 : encrypt_hooks.find_in_rpc(oper, rpc);
}

int encrypt_add_ns_prefix(const char *module, const char *ns, const char *prefix)
{
  return encrypt_hooks.add_ns_prefix == nullptr ? 0 : encrypt_hooks.add_ns_prefix(module, ns, prefix);
}

void encrypt_delete_sensitive(const char *module)
{
  if (encrypt_hooks.delete_module != nullptr) {
    encrypt_hooks.delete_module(module);
  }
}
