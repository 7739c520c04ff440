// Types and names that three or more components of the daemon share. Includes nothing of the daemon.
#pragma once

#include <cstdint>

// Start-up stages; every component's init function is called once for each, in this order.
enum { STAGE_RESOURCE = 0, STAGE_CONFIG = 1, STAGE_RESTORE = 2, STAGE_KICKOFF = 3 };

// High 16 bits of an event-loop tag; the low 16 bits are an instance id.
enum { AGT_SRV = 1, AGT_INST = 2, PLG_SRV = 3, PLG_INST = 4, NOTIFY_SRV = 5 };

constexpr uint32_t ymgrd_event_tag(uint32_t type, uint32_t instance_id)
{
  return (type << 16) | (instance_id & 0xffffU);
}

// NETCONF datastores.
typedef enum _ENUM_DATASTORE {
  ENUM_DATASTORE_ERROR = 0,
  ENUM_DATASTORE_CONFIG = 1,
  ENUM_DATASTORE_URL = 2,
  ENUM_DATASTORE_RUNNING = 3,
  ENUM_DATASTORE_STARTUP = 4,
  ENUM_DATASTORE_CANDIDATE = 5,
  ENUM_DATASTORE_STATUS = 6,
} ENUM_DATASTORE;

// Logical databases, the `target` of the database interface.
enum {
  YMGRM_SCHEMA_DB = 0,
  YMGRM_STARTUP_DB = 1,
  YMGRM_RUNNING_DB = 2,
  YMGRM_CANDIDATE_DB = 3,
  YMGRM_STATUS_DB = 4,
  YMGRM_NOTIFY_DB = 5,
};

// Redis database numbers. A "cluster" database is the backup of the master before it.
enum {
  REDIS_RESERVED = 0,
  REDIS_INIT = 1,
  REDIS_STARTUP_DB_MASTER = 2,
  REDIS_STARTUP_DB_CLUSTER = 3,
  REDIS_RUNNING_DB_MASTER = 4,
  REDIS_RUNNING_DB_CLUSTER = 5,
  REDIS_CANDIDATE_DB_MASTER = 6,
  REDIS_CANDIDATE_DB_CLUSTER = 7,
  REDIS_STATUS_DB_MASTER = 8,
  REDIS_STATUS_DB_CLUSTER = 9,
  REDIS_NOTIFY_DB = 10,
  REDIS_DEVM_DB = 11,
  REDIS_PROTOM_DB = 12,
};

// How far a write to a datastore got; stored as the digit character. Advanced in this order by every write:
// INIT -> PREPARE -> PREPARE_END -> DATA_EDIT -> PUB -> PUB_END -> COMMIT -> COMMIT_END; every failure ends in
// COMMIT_END.
typedef enum _transact_state_e {
  E_TRANS_INVALID = 48,
  E_TRANS_INIT = 49,
  E_TRANS_PREPARE = 50,
  E_TRANS_PREPARE_END = 51,
  E_TRANS_DATA_EDIT = 52,
  E_TRANS_PUB = 53,
  E_TRANS_PUB_END = 54,
  E_TRANS_COMMIT = 55,
  E_TRANS_COMMIT_END = 56,
} transact_state_e;

// Operation of a node in an edit (RFC 6241, section 7.2).
typedef enum _NC_EDIT_OP_TYPE {
  NC_EDIT_OP_ERROR = -1,
  NC_EDIT_OP_NONE = 0,
  NC_EDIT_OP_MERGE = 1,
  NC_EDIT_OP_REPLACE = 2,
  NC_EDIT_OP_CREATE = 3,
  NC_EDIT_OP_DELETE = 4,
  NC_EDIT_OP_REMOVE = 5,
} NC_EDIT_OP_TYPE;

// What happened to a node of a diff tree; a bit set. Plugins receive it as the operation type of a change.
typedef enum _ENUM_ACTION_E {
  DBDIFF_ERR = -1,
  DBDIFF_NONE = 0,
  DBDIFF_ADD = 1,
  DBDIFF_REM = 2,
  DBDIFF_MOD = 4,
  DBDIFF_CHAIN = 8,
  DBDIFF_MOVE = 16,
  DBDIFF_CFGR = 16384,
  DBDIFF_ROLLBACK = 32768,
} ENUM_ACTION;

typedef enum _conf_mnode_type {
  CONF_NODE_ERR = -1,
  CONF_NODE_MODULE = 0,
  CONF_NODE_CONTAINER = 1,
  CONF_NODE_LEAF = 2,
  CONF_NODE_LEAFLIST = 3,
  CONF_NODE_LIST = 4,
  CONF_NODE_CHOICE = 5,
  CONF_NODE_CASE = 6,
  CONF_NODE_RPC = 7,
  CONF_NODE_INPUT = 8,
  CONF_NODE_OUTPUT = 9,
  CONF_NODE_NOTIFICATION = 10,
  CONF_NODE_ANYXML = 11,
  CONF_NODE_LISTKEY = 12,
} conf_mnode_type_t;

// Status of one delivery to a plugin or inside handler.
enum { SUBPUB_CONTINUE = 0, SUBPUB_WAIT = 1, SUBPUB_ERROR = 2 };

// Locks of the database layer.
enum { DB_LOCK_NONE = 0, DB_LOCK_READ = 1, DB_LOCK_WRITE = 2 };

// error-option of edit-config and copy-config.
enum { ERROR_OPTION_STOP = 0, ERROR_OPTION_CONTINUE = 1, ERROR_OPTION_ROLLBACK = 2 };

constexpr const char NETCONF_BASE_NS_1_0[] = "urn:ietf:params:xml:ns:netconf:base:1.0";
constexpr const char NETCONF_BASE_NS_1_1[] = "urn:ietf:params:xml:ns:netconf:base:1.1";
constexpr const char YMGRD_PRIVATE_NS[] = "com:zentra:netconf:private:opal:device:ymgrd";

// A stored value that begins with this marker is an encrypted sensitive value.
constexpr const char CIPHER_TEXT_MARKER[] = "#%";
