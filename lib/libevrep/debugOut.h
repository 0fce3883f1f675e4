// The debug channel of the event library: short lines that help to follow an archive or a
// transfer. They go nowhere until a program asks for them.
#pragma once

using DebugSink = void (*)(const char* text);

// Sends the lines to `sink`, or nowhere for null. Not to be changed while other threads use the
// library.
void setDebugOut(DebugSink sink) noexcept;

void debugOut(const char* text);
