// Giving memory back to the system. The allocator keeps what large requests used; the daemon runs for years beside
// others.
#pragma once

#include <cstddef>

// To be called with the size of what was received or sent: remembers that there is something to give back.
void memory_note_use(size_t bytes);
// Gives free memory back if something large was used since the last call. Takes up to some tenths of a second after
// very large requests: for idle passes of the event loop.
void memory_give_back();
