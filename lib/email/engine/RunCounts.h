// What one run came to, in numbers. Every engine counts for itself; whoever started it adds its
// counts to his own, so that the whole run can be told in one line.
#pragma once

#include "email/telling/DeliveryLog.h"

namespace Email {

struct RunCounts {
    long entries = 0;   // messages found: entries of the spool that have a recipient file
    long attempted = 0; // of these, how many were due or overdue
    long held = 0;      // left to another process that was working on them
    // Recipients by outcome, also while "mail-log" silences their lines; those of return mails
    // that were sent or queued in this run are among them.
    long delivered = 0;
    long returnDelivered = 0;
    long deferred = 0;
    long returned = 0;
    long dropped = 0;

    RunCounts& operator+=(const RunCounts& other) noexcept;

    // Counts one recipient with this outcome; any other line counts nothing.
    void count(LogLine outcome) noexcept;
};

// Writes the line that ends a run.
void tellRunEnd(const RunCounts& counts, long seconds);

} // namespace Email
