#include "ymgrd/schema/schema_record.h"

#include <cstdint>

namespace {

constexpr int NODE_TYPE_SHIFT = 21;

uint32_t encode_flags(const conf_mnode_schema_t &node)
{
  const bool flags[] = {node.config, node.status, node.rpc, node.notification, node.mandatory, node.precense};
  uint32_t word = static_cast<uint32_t>(node.node_type) << NODE_TYPE_SHIFT;
  uint32_t bit = UINT32_C(1) << 31;
  for (bool flag : flags) {
    word |= flag ? bit : 0;
    bit >>= 1;
  }
  return word;
}

void append_big_endian(std::string *record, size_t number, int bytes)
{
  for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
    *record += static_cast<char>(number >> shift & 0xFF);
  }
}

} // namespace

int schema_encode_record(const conf_mnode_schema_t &node, std::string *ret_record)
{
  const bool has_type = node.node_type == CONF_NODE_LEAF || node.node_type == CONF_NODE_LEAFLIST;
  const bool has_default = node.node_type == CONF_NODE_LEAF || node.node_type == CONF_NODE_CHOICE;
  size_t type_offset = 0;
  size_t default_offset = 0;
  std::string data(1, '\0');
  if (has_type) {
    type_offset = data.size();
    data.append(node.type_name).push_back('\0');
  }
  if (has_default) {
    default_offset = data.size();
    data.append(node.default_text).push_back('\0');
  }
  if (data.size() > INT16_MAX) {
    return -1;
  }
  std::string record;
  append_big_endian(&record, encode_flags(node), 4);
  append_big_endian(&record, 0, 4); // min_elem
  append_big_endian(&record, 0, 4); // max_elem
  append_big_endian(&record, 0, 2); // help_offset
  append_big_endian(&record, type_offset, 2);
  append_big_endian(&record, default_offset, 2);
  append_big_endian(&record, has_type || has_default ? data.size() : 0, 2);
  *ret_record = record + data;
  return 0;
}
