// The queue walker: offers every entry of the deferred spool once, under its lock, to the engine.
#pragma once

#include "email/FileName.h"
#include "email/ListSender.h"

class MailReSender : public ListSender {
public:
    MailReSender() = default;

    // Walks the deferred spool once. Non-zero switches the per-file trace lines on.
    void RetryAll(int traceLevel);

    // Locks and delivers one entry; an entry without recipient file, or held by another process, is
    // left alone.
    void tryFile(FileName* entry);

    // Delivers one locked entry.
    bool Send(const FileName& entry);
};
