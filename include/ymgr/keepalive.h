/*
 * Keep-alive library: the shared object named on ymgrd's command line, through which a product's watchdog learns that
 * the daemon is alive. It exports the one function below. Usable from C and C++.
 *
 * The daemon loads the library anew for every call and unloads it afterwards: state that must survive from one call to
 * the next has to live outside the library, or the library is linked with "-z nodelete". The call is made on the
 * daemon's only thread and must not block.
 */
#ifndef YMGR_KEEPALIVE_H
#define YMGR_KEEPALIVE_H

#ifdef __cplusplus
extern "C" {
#endif

/*
 * (0, 0): the ordinary heartbeat, about every ten seconds, and the end of an announced long operation.
 * Else: a long operation begins; the watchdog may warn when no further call comes within `warn_secs` seconds, and may
 * end the daemon after `kill_secs` seconds. Returns 0 for success; any other result is logged and has no further
 * effect.
 */
int pdt_keep_alive(int warn_secs, int kill_secs);

#ifdef __cplusplus
}
#endif

#endif
