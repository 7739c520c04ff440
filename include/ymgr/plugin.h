/*
 * Plugins of ymgrd: the applications that implement the configuration. Usable from C and C++.
 *
 * A plugin subscribes to configuration paths, supplies state data and implements operations. It is written once, as a
 * function that registers its callbacks, and built either as a process of its own ("remote": links libymgrplugin and
 * talks to the daemon over plugin.sock) or as a shared object that the daemon loads ("local": links
 * libymgrplugin-local). docs/plugins.md tells the whole life of a plugin.
 *
 *     static int hostname_changed(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *user) {
 *       char *name = NULL;
 *       if (ymgr_plugin_pull_value(plugin, change->path, YMGR_NEW, &name) != 0) return -1;
 *       ...
 *       free(name);
 *       return 0;
 *     }
 *     static int setup(ymgr_plugin_t *plugin) {
 *       return ymgr_plugin_on_config(plugin, "/ex-sys:system/hostname", 10, hostname_changed, NULL);
 *     }
 *     YMGR_PLUGIN("hostname", setup)
 *
 * Threads: all functions on one plugin are to be called from one thread, and callbacks run inside
 * ymgr_plugin_process(), ymgr_plugin_run() or, in a local plugin, on the daemon's only thread, which must not block.
 * Only ymgr_plugin_stop() may be called from a signal handler or another thread.
 *
 * Paths name modules, not prefixes: "/MODULE:TOP/child/OTHERMODULE:child". Data paths given to callbacks name list
 * entries by their keys: list[k1="v1",k2="v2"], leaf-list[.="v"]; a double quote or backslash in a value has a
 * backslash before it. XML is as in the <data> of a NETCONF get reply: from the top node on, list entries with their
 * keys.
 *
 * Functions that return int give 0, or -1 with the reason in ymgr_plugin_error(), unless said otherwise. Texts that
 * come back through a ret_ parameter are allocated with malloc and freed by the caller.
 */
#ifndef YMGR_PLUGIN_H
#define YMGR_PLUGIN_H

#include <stddef.h>

#define YMGR_PLUGIN_API_VERSION 1

#ifdef __cplusplus
extern "C" {
#endif

/* What happened to a node; a bit set. */
typedef enum _ECONF_CONFIG_OPER_TYPE {
  CONFIG_OP_ERROR = -1,
  CONFIG_OP_NONE = 0,
  CONFIG_OP_ADD = 1,          /* new, with all below it */
  CONFIG_OP_RM = 2,           /* gone, with all below it */
  CONFIG_OP_MOD = 4,          /* a leaf with another value */
  CONFIG_OP_CHAIN = 8,        /* itself as it was, something below it changed */
  CONFIG_OP_MOVE = 16,        /* an entry of a user-ordered list stands elsewhere: ymgr_plugin_locate() tells where */
  CONFIG_OP_CFGR = 16384,     /* restore: running is handed over whole, after the plugin has started */
  CONFIG_OP_ROLLBACK = 32768, /* the change that the other bits name is to be taken back, to YMGR_OLD */
  CONFIG_OP_SMOOTH = 65536    /* after the daemon was cut off: bring this node to what running holds now */
} ECONF_CONFIG_OPER_TYPE;

typedef struct ymgr_plugin ymgr_plugin_t;

/* One changed node at or below a subscribed path. Valid during the callback. */
typedef struct ymgr_change {
  int session_id;   /* of the client; -1 in a restore, -2 in a smooth start */
  int oper_type;    /* bit set of CONFIG_OP_... */
  int priority;     /* of the subscription */
  int more;         /* not 0: this subscription is offered a further node of the same change */
  const char *path; /* data path of the node */
} ymgr_change_t;

/* Which configuration a pull looks at. Outside a change both are running. During a change YMGR_OLD is what running held
 * before it and YMGR_NEW what it will hold; during a rollback too: there YMGR_OLD is what to go back to. */
typedef enum ymgr_moment { YMGR_NEW = 0, YMGR_OLD = 1 } ymgr_moment_t;

/* --- Making a plugin */

/* `name` is shown in logs and errors. Null when memory or descriptors are short. ymgr_plugin_free() ends the connection
 * too; not inside a callback. */
ymgr_plugin_t *ymgr_plugin_new(const char *name);
void ymgr_plugin_free(ymgr_plugin_t *plugin);
/* The daemon's run directory; else $YMGR_RUN_DIR, else "/run/ymgrd". Before the first connection. */
int ymgr_plugin_set_run_dir(ymgr_plugin_t *plugin, const char *run_dir);
/* Where the library's messages go (level: 3 error, 4 warning, 6 information, 7 debug, as in syslog); by default errors
 * and warnings go to standard error. */
void ymgr_plugin_set_log(ymgr_plugin_t *plugin, void (*log)(int level, const char *text));
/* The reason of the last failure, "" when there was none. Valid until the next call. */
const char *ymgr_plugin_error(const ymgr_plugin_t *plugin);

/* --- Registering, before the first connection. Paths are schema paths (keys in predicates are ignored); names of
 * choices and cases may be left out. `user` is passed to the callback.
 *
 * A callback accepts with 0. It refuses with what ymgr_plugin_reject() returns; any other result than 0 refuses with
 * code -1 and a general message. */

/* Changes at or below `path`. Subscriptions of all plugins are served by ascending priority, so that what others depend
 * on gets a low one. A refused change is taken back everywhere, in reverse order. In a local plugin, paths that lie in
 * each other have different priorities. */
typedef int (*ymgr_config_fn)(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *user);
int ymgr_plugin_on_config(ymgr_plugin_t *plugin, const char *path, int priority, ymgr_config_fn fn, void *user);

/* State data below `path`, asked for by a get. `*ret_data` is to be set to the XML, allocated with malloc; it may stay
 * null: nothing to tell. */
typedef int (*ymgr_status_fn)(ymgr_plugin_t *plugin, const char *path, char **ret_data, void *user);
int ymgr_plugin_on_status(ymgr_plugin_t *plugin, const char *path, ymgr_status_fn fn, void *user);

/* The operation "/MODULE:NAME". `input` is the operation's element as the client sent it, checked against its module.
 * `*ret_output` is to be set to the output's elements as XML, allocated with malloc; null for an operation without
 * output. */
typedef int (*ymgr_rpc_fn)(ymgr_plugin_t *plugin, int session_id, const char *input, char **ret_output, void *user);
int ymgr_plugin_on_rpc(ymgr_plugin_t *plugin, const char *path, ymgr_rpc_fn fn, void *user);

/* Called when the configuration has been handed over, after each connection; in a local plugin when it is installed,
 * just before. Nothing is offered for what is not configured (any more): this is the place to clear it away. A result
 * other than 0 is logged. */
typedef int (*ymgr_ready_fn)(ymgr_plugin_t *plugin, void *user);
int ymgr_plugin_on_ready(ymgr_plugin_t *plugin, ymgr_ready_fn fn, void *user);

/* Refuses what the running callback was called for. The client sees the message, and the code as error-app-tag. Always
 * -1: `return ymgr_plugin_reject(plugin, 7, "no such interface");` */
int ymgr_plugin_reject(ymgr_plugin_t *plugin, int code, const char *message);

/* Puts off the answer of the running callback, which then returns 0: another request follows only after the answer. The
 * number names it, and is greater than 0; -1 in a local plugin, which must answer at once. */
int ymgr_plugin_defer(ymgr_plugin_t *plugin);
/* Answers later: `data` as in the callback's ret_ parameter (may be null; not freed). -1 when the request is not waited
 * for any more (overdue, or the connection was lost), or `data` is not well-formed: then it is answered by an error. */
int ymgr_plugin_answer(ymgr_plugin_t *plugin, int request, const char *data);
int ymgr_plugin_answer_error(ymgr_plugin_t *plugin, int request, int code, const char *message);

/* --- Reading the configuration. Each is one round trip to the daemon (none in a local plugin). */

/* All below `path`, as XML; "" when there is nothing. */
int ymgr_plugin_pull(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_xml);
/* The value of the leaf at `path`; null when there is none. */
int ymgr_plugin_pull_value(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_value);
/* Calls `fn` for each leaf and leaf-list entry at or below `path`, in document order: its path (list entries by their
 * position among the pulled siblings, from 1, where there are several: "/m:top/list[2]/leaf"; modules as `path` names
 * them), its name and its value. The library does not know the schema: a container without content appears too, with an
 * empty value. A result other than 0 ends the walk and is returned. */
typedef int (*ymgr_value_fn)(const char *path, const char *name, const char *value, void *user);
int ymgr_plugin_pull_values(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, ymgr_value_fn fn,
                            void *user);
/* The data paths of the entries before and behind the list or leaf-list entry `path`; null at the ends. */
int ymgr_plugin_locate(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_prev, char **ret_next);

/* --- Telling the daemon */

/* State data that answers later gets, until it is pushed anew or the plugin ends. Replaces what was pushed at `path`,
 * which lies at or below a path of ymgr_plugin_on_status(). "" takes it back. */
int ymgr_plugin_push(ymgr_plugin_t *plugin, const char *path, const char *xml);
/* An event for the NETCONF clients that subscribed to notifications (RFC 5277): `xml` is one element, defined by a YANG
 * notification; one inside of containers and lists stands in all that is above it. Sent as a datagram of at most 256
 * KiB (less where the system's limit is lower): -1 when the daemon's socket does not take it. There is no answer: an
 * event that its notification does not admit is logged by the daemon and not sent to anybody. */
int ymgr_plugin_notify(ymgr_plugin_t *plugin, const char *xml);

/* --- Running. In a local plugin these do nothing and return 0. */

/* Connects, serves, and connects again when the connection is lost, until ymgr_plugin_stop(). -1 only when that can not
 * help: the daemon refused the registration. */
int ymgr_plugin_run(ymgr_plugin_t *plugin);
void ymgr_plugin_stop(ymgr_plugin_t *plugin);

/* For an application with a loop of its own: when the descriptor (the same for the life of the plugin) is readable,
 * and once at the start, call ymgr_plugin_process(), which never blocks and connects as needed. */
int ymgr_plugin_fd(const ymgr_plugin_t *plugin);
int ymgr_plugin_process(ymgr_plugin_t *plugin); /* 0; -1 as for ymgr_plugin_run() */
/* Not 0 once the daemon has handed over the configuration and counts on the plugin. */
int ymgr_plugin_is_ready(const ymgr_plugin_t *plugin);

/* A main() for plugins that do nothing else: reads "--run-dir DIR", runs until SIGTERM or SIGINT. The exit status. */
int ymgr_plugin_main(int argc, char **argv, const char *name, int (*setup)(ymgr_plugin_t *plugin));

/* --- One source for both kinds: defines main(), or, compiled with YMGR_LOCAL_PLUGIN, what libymgrplugin-local needs.
 */
#ifdef YMGR_LOCAL_PLUGIN
/* Each shared object has its own. */
extern const char *const ymgr_local_plugin_name __attribute__((visibility("hidden")));
int ymgr_local_plugin_setup(ymgr_plugin_t *plugin) __attribute__((visibility("hidden")));
#define YMGR_PLUGIN(name, setup)                                                                                       \
  const char *const ymgr_local_plugin_name = (name);                                                                   \
  int ymgr_local_plugin_setup(ymgr_plugin_t *plugin)                                                                   \
  {                                                                                                                    \
    return (setup)(plugin);                                                                                            \
  }
#else
#define YMGR_PLUGIN(name, setup)                                                                                       \
  int main(int argc, char **argv)                                                                                      \
  {                                                                                                                    \
    return ymgr_plugin_main(argc, argv, (name), (setup));                                                              \
  }
#endif

/*
 * --- The binary interface of local plugins. Only for those who write one without libymgrplugin-local.
 *
 * Beside the shared object, which the daemon's profile names, lies a JSON profile NAME.conf in the plugins directory:
 *
 *     {"version": 1,
 *      "base": {"stage": 1, "callback": "F", "install": "F", "uninstall": "F"},
 *      "config": [{"path": "/m:top", "priority": 10, "callback": "F"}],
 *      "status": [{"path": "/m:state", "callback": "F"}],
 *      "rpc": [{"path": "/m:operation", "callback": "F"}]}
 *
 * Each F is a function of the shared object. base.callback is called first, with the daemon's functions; install at the
 * given stage of the daemon's start (1 by default), uninstall before the object is unloaded.
 */
typedef struct _ymgrd_plugin_callback {
  /* As ymgr_plugin_locate(), pull and push; `old` is YMGR_OLD or YMGR_NEW. */
  int (*conf_plugin_locate)(const char *path, int old, char **ret_prev, char **ret_next);
  int (*conf_plugin_pull)(const char *path, int old, char **ret_xml);
  int (*conf_plugin_push)(const char *path, const char *xml);
  /* The reason why the running config or rpc callback will return -1. */
  int (*conf_plugin_error)(int code, const char *message);
  /* The output of the running rpc callback. */
  int (*conf_plugin_reply)(int session_id, const char *output);
} ymgrd_plugin_callback_t;

typedef int (*ymgr_local_callback_fn)(const ymgrd_plugin_callback_t *functions); /* 0 or -1 */
typedef int (*ymgr_local_install_fn)(void);                                      /* 0 or -1 */
typedef void (*ymgr_local_uninstall_fn)(void);
typedef int (*ymgr_local_config_fn)(int session_id, int oper_type, int more_flag, int priority, const char *path);
typedef int (*ymgr_local_status_fn)(int session_id, const char *path, char **ret_xml);
typedef int (*ymgr_local_rpc_fn)(int session_id, const char *input);

#ifdef __cplusplus
}
#endif

#endif
