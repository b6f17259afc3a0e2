// The C library's heap: one for all threads, and what it keeps goes back to the system. With glibc;
// other C libraries have nothing to be set.
#pragma once

// One heap for many threads that rarely allocate. Main thread, before any other.
void heap_open();

// Gives pages back that nothing is allocated in any more: after a relay or a page, which take
// memory for moments. Any thread.
void heap_trim();
