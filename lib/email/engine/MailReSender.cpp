#include "email/engine/MailReSender.h"

#include "email/file/FileIterator.h"
#include "email/site/mailscanGlobals.h"
#include "email/spool/MessageLock.h"
#include "email/telling/DeliveryLog.h"

#include <array>

namespace {

constexpr unsigned kPathLimit = 200; // characters of a message's path, with the terminator

} // namespace

void MailReSender::RetryAll(int traceLevel) {
    walkTrace_ = traceLevel;
    FileIterator spool(mailscanGlobals::deferred_mail_path());
    FileInfo info;
    while (const auto entry = spool.Next(info)) {
        tryFile(entry.get());
    }
}

void MailReSender::tryFile(FileName* entry) {
    std::array<char, kPathLimit> path{};
    if (!entry->Pathname(path.data(), path.size())) {
        if (walkTrace_ != 0) {
            Email::writeLine(Email::LogLine::TracePathTooLong, {});
        }
        return;
    }
    deliverLocked(*entry, std::string(path.data()) + ".rmd");
}

void MailReSender::deliverLocked(const FileName& entry, const std::string& lockFile) {
    traceFile(Email::LogLine::TraceAttempting, lockFile);
    const Email::MessageLock lock(lockFile);
    if (lock.state() == Email::MessageLock::State::NotOpened && walkTrace_ != 0) {
        Email::writeLine(Email::LogLine::TraceUnableToOpen,
                         {.args = {lockFile, std::to_string(lock.error())}});
    }
    if (lock.state() != Email::MessageLock::State::Held) {
        return;
    }
    traceFile(Email::LogLine::TraceLocked, lockFile);
    Send(entry);
    traceFile(Email::LogLine::TraceFinished, lockFile);
}

bool MailReSender::Send(const FileName& entry) {
    return ListSender::Send(entry, true, walkTrace_);
}

void MailReSender::traceFile(Email::LogLine line, const std::string& file) const {
    if (walkTrace_ != 0) {
        Email::writeLine(line, {.args = {file}});
    }
}
