// The daemon's service sockets in its run directory (created with mode 0750, sockets with 0660): agent.sock and
// plugin.sock take connections, notify.sock takes datagrams. The peer's credentials are read at accept (SO_PEERCRED).
#pragma once

#include <sys/types.h>

// The run directory of this process: where the sockets and the shared client area live. Default "/run/ymgrd". A
// relative path is resolved when it is set.
void conf_set_run_dir(const char *run_dir);
const char *conf_run_dir();
// Makes the run directory unless it is there; its parent must exist. 0, or -1 with errno.
int conf_make_run_dir();

// Each returns a listening (or bound), non-blocking, close-on-exec descriptor, or -1 with errno. A socket file that a
// dead daemon left behind is replaced; one that a living process listens on is not (EADDRINUSE).
int conf_agent_service_enable();
int conf_plugin_service_enable();
int conf_plugin_notifier_enable();
// Each closes the descriptor and removes the socket file; a negative descriptor is left alone.
void conf_agent_service_disable(int sock);
void conf_plugin_service_disable(int sock);
void conf_plugin_notifier_disable(int sock);

typedef struct _conf_peer {
  pid_t pid;
  uid_t uid;
  gid_t gid;
} conf_peer_t;
int conf_peer_credentials(int sock, conf_peer_t *ret_peer); // 0, or -1 with errno

int conf_non_block_fd(int fd); // 0, or -1 with errno
