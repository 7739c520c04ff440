// The request to end in an orderly way, made by SIGTERM or SIGINT. Set in a signal handler; looked at by whatever waits
// or runs for long: it ends early with a failure, and the tear-down follows on the ordinary path.
#pragma once

// The signal that asked the daemon to end; 0 while none did.
int ymgrd_stop_signal();
void ymgrd_note_stop_signal(int signal_no); // async-signal-safe
