// A run that stops early says why: one line in the system log for every end with a status other
// than 0. An end by a signal is the crash handler's business.
#pragma once

// Once, at the start of the program.
void tellStops();

// Why the run is about to stop; null when a line has told it already. A failed check needs no
// reason: it is one.
void stopsBecause(const char* reason) noexcept;
