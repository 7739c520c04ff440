// The broker: routes operations to their handlers, offers configuration changes to their subscribers in priority order
// with rollback, and gathers state data. At most one publication and one status subscription run at a time; both are
// resumable. Knows neither the datastore nor the plugins: start-up registers what it calls there.
#pragma once

#include <string>

#include "ymgrd/broker/differ_tree.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/rpc_error.h"

typedef struct _plugin_inst plugin_inst_t;

// Handlers inside the daemon. An operation handler has sent its reply, or sends it later: 0; -1 after an error reply.
typedef int (*oper_handler_fn)(int session_id, const char *data, lyxml_elem *rpc);
typedef int (*config_handler_fn)(int session_id, int oper_type, int more_flag, int priority, const char *path);
// Writes its state data into the status database. 0; -1 when there is none, which is left out of the reply.
typedef int (*status_handler_fn)(int session_id, const char *path);

// What a subscriber registered: a function of ours, or the number that a remote plugin wants to see again in each
// message.
typedef union _econf_subpub_cb {
  oper_handler_fn oper;
  config_handler_fn config;
  status_handler_fn status;
  uint64_t token;
} econf_subpub_cb_t;

typedef struct _plugin_publish_info {
  int session_id;
  econf_subpub_cb_t cb_func;
  bool config_flag; // selects the member below
  struct {
    int oper_type;
    int priority;
    int more_flag;
    const char *path;
  } config;
  struct {
    xmlNode *input;
  } operate;
} plugin_publish_info_t;

typedef struct _plugin_subscibe_info {
  int session_id;
  econf_subpub_cb_t cb_func;
  const char *path;
  const char *filter; // null: none
} plugin_subscibe_info_t;

// What the layers above do for the broker. Each delivery sets `status` to SUBPUB_CONTINUE, SUBPUB_WAIT or SUBPUB_ERROR.
typedef struct _broker_hooks {
  int (*publish_config)(int plugin_id, const plugin_publish_info_t *info, int *status);
  int (*publish_operate)(int plugin_id, const plugin_publish_info_t *info, int *status);
  int (*subscribe_status)(int plugin_id, const plugin_subscibe_info_t *info, int *status);
  // The end of every publication: whether rollback ran, and the errors (taken over; null when none).
  int (*publish_ended)(int is_rollback, reply_error_ptr errors);
  int (*status_ended)();                                    // the end of every status subscription
  int (*parse_rpc)(const char *oper_name, lyxml_elem *rpc); // 0 when a user-defined RPC is valid
  int (*error_kind)(int data_kind, int other_kind);         // of its fault, see ds_error_kind
  void (*add_path_and_msg)(reply_error_t *error);
  int (*plugin_id)(const plugin_inst_t *plugin); // of a registration's plugin; greater than 0
  const char *(*plugin_name)(int plugin_id);     // null when there is none
  // The broker waits no longer for what the plugin was asked: a reply that still comes is too late.
  void (*given_up)(int plugin_id);
  // Restore and smooth start (see datastore/ds_restore.h): the trees are borrowed until the job ends.
  int (*get_cfgr_differ)(const differ_interest_fn &interest, differ_node_t **ret_tree);
  void (*free_cfgr_differ)();
  differ_node_t *(*smooth_differ)();
  void (*end_smooth_start)();
  void (*kickoff)(plugin_inst_t *plugin); // it has been restored, and takes part in publications from now on
} broker_hooks_t;
void broker_set_hooks(const broker_hooks_t &hooks);

int broker_init(int stage);
void broker_exit();

// `plugin` is null for handlers inside the daemon. Paths are taken in any form and kept in std form. 0 or -1.
// Operations are offered in the order of their registration, changes by ascending `pri` (equal ones by registration),
// state requests by path.
int broker_reg_oper_subscriber(plugin_inst_t *plugin, const char *name, econf_subpub_cb_t cb_func);
int broker_reg_config_subscriber(plugin_inst_t *plugin, const char *path, int pri, econf_subpub_cb_t cb_func);
int broker_reg_status_publisher(plugin_inst_t *plugin, const char *path, econf_subpub_cb_t cb_func);
// The first record of that path goes, whoever registered it and with whatever priority; nothing happens when there is
// none.
void broker_unreg_oper_subscriber(plugin_inst_t *plugin, const char *name);
void broker_unreg_config_subscriber(plugin_inst_t *plugin, const char *path, int pri);
void broker_unreg_status_publisher(plugin_inst_t *plugin, const char *path);
// Removes all that the plugin registered, before it goes. A publication or status subscription that waits for it goes
// on when it is continued; a restore goes on by itself.
void broker_cancel_plugin_subpub(plugin_inst_t *plugin);
// Registers a component's operations in order; when one fails, takes the ones before back in reverse order. 0 or -1,
// with
// `*ret_failed` the name that failed.
typedef struct _oper_registration {
  const char *name;
  oper_handler_fn handler;
} oper_registration_t;
int broker_reg_inside_operations(const oper_registration_t *operations, int count, const char **ret_failed);

// Offers the session's request to the first subscriber of its operation. When there is none, the session is told so,
// and the result is 0. -1 when the subscriber failed or could not be reached.
int broker_publish_operation(int session_id);
// Offers it to the next subscriber; 0 also when there is none.
int broker_publish_operation_next(int session_id);

// Starts a publication: 0 when started (its end arrives through publish_ended, possibly inside this call), -1 when not.
// Borrows `tree` until then. Each subscriber is offered the highest changed nodes at or below its path: one, or each
// changed entry when they lie in a list. `err_opt` is ERROR_OPTION_...: after a failure stop, go on, or take back what
// was offered.
int broker_publish_config(int session_id, int err_opt, differ_node_t *tree);
// The plugin's reply of SUBPUB_WAIT has come, or will not come. Nothing happens when another one is waited for.
void broker_publish_continue(int plugin_id);
// Adds an error to the publication, with the node that was offered last and the plugin's name: the one that continues
// afterwards has failed. 0 or -1.
int broker_save_error(int err_code, const char *err_msg);
int broker_is_publish_over(); // 0 when no publication runs, -1 while one runs

// Asks each publisher whose path begins with `path`, in path order. 0 when started (its end arrives through
// status_ended, possibly inside this call), -1 when not.
int broker_subscribe_status(int session_id, const char *path);
void broker_subscribe_continue(int plugin_id); // as broker_publish_continue

int broker_check_busy(const char *oper); // 1 when the operation must wait, else 0
void broker_timeout();                   // once per idle second
// Once per pass of the event loop: starts the restores that are pending, and after one has ended the requests of
// sessions that had to wait for it.
void broker_run_pending();
