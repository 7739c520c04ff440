// The record of a schema node in the schema database: what it tells, and its bytes (docs/protocol.md). Knows nothing of
// libyang or Redis.
#pragma once

#include <string>
#include <string_view>

#include "ymgrd/ymgrd.h"

// Where in the schema a node was met.
typedef enum _spec_mnode_type {
  SCHEMA_CONFIG = 0,
  SCHEMA_STATUS = 1,
  SCHEMA_RPC = 2,
  SCHEMA_RPC_IN = 3,
  SCHEMA_RPC_OUT = 4,
  SCHEMA_NOTIFICATION = 5,
  SCHEMA_MANDATORY = 6,
  SCHEMA_PRECENSE = 7,
} spec_mnode_type_t;

typedef struct _conf_mnode_schema {
  bool config = true;
  bool status = false; // has a status statement of its own, whatever it says
  bool rpc = false;
  bool notification = false;
  bool mandatory = false;
  bool precense = false;
  conf_mnode_type_t node_type = CONF_NODE_ERR;
  std::string type_name;    // leaves and leaf-lists
  std::string default_text; // leaves: the value; choices: the name of the case
} conf_mnode_schema_t;

// 0, or -1 when the texts are too long for a record.
int schema_encode_record(const conf_mnode_schema_t &node, std::string *ret_record);
