// The shared client area: the file "clients" in the run directory, shared by the daemon and its agents. It tells the
// daemon the address of the client behind an agent process. One slot per session; a slot whose process is gone is free.
#pragma once

#include <cstdint>
#include <string>

typedef struct _conf_client_info {
  int32_t pid;
  int32_t family;      // AF_INET, AF_INET6, or 0 when the address is unknown
  uint8_t address[16]; // network byte order; 4 or 16 bytes used
} conf_client_info_t;

// Daemon: creates the area with room for `slots` clients (at most 65535). 0, or -1 with errno.
int conf_clishm_create(int slots);
void conf_clishm_destroy();
// Daemon: what the agent process `pid` registered. 0, or -1 when it registered nothing.
int conf_get_client_info(int pid, conf_client_info_t *ret_info);
// Daemon: frees the slot of that process; left alone while an agent changes the area.
void conf_free_client_info(int pid);

// Agent: registers the client of the calling process `info.pid` with the daemon that runs in `run_dir`, replacing an
// earlier registration of that process. 0, or -1 with errno (ENOSPC: no free slot, EPROTO: not a client area). May wait
// some seconds.
int conf_register_client(const std::string &run_dir, const conf_client_info_t &info);
