// What events cost: from the datagram of a plugin to the last of several subscribers, and in a replay.
#pragma once

// Prints a table. 0 or -1.
int bench_notifications();
