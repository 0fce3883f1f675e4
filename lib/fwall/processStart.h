// What each of the gateway's programs that touch mail does first.
#pragma once

// Opens /dev/null on those of descriptors 0 to 2 that are closed, as a scheduler may leave them. A
// spool file must not take the place of standard error, where the runtime writes its last words.
void openStandardDescriptors() noexcept;

// A program inherits which signals its starter blocked or ignored. Blocked timers would let a
// silent server or name server hold it for ever; an ignored SIGCHLD would hide that a worker has
// ended. So nothing is blocked from here on, and SIGCHLD is not ignored. What else was ignored
// (nohup) stays.
void takeSignals() noexcept;

// A peer that is gone, or a file that may not grow further, is an error at the call that meets it
// and must not end the run: SIGPIPE and SIGXFSZ are ignored, also by what is started later.
void ignoreWriteSignals() noexcept;

// What a careless parent left open would fill the table of descriptors: all above 2 is closed.
void closeInheritedDescriptors() noexcept;
