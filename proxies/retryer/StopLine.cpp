#include "retryer/StopLine.h"

#include "email/base/Assert.h"
#include "email/telling/DeliveryLog.h"

#include <cstdlib>
#include <string>

namespace {

constexpr int kStatusBits = 0xFF; // what is left of a status for the process that waits

const char* stopReason = "unknown";

std::string reasonText() {
    if (const FailedCheck* check = failedCheck(); check != nullptr) {
        return std::string("failed check in ").append(check->file) + ", line " +
               std::to_string(check->line) + ": " + check->condition;
    }
    return stopReason;
}

void tellStop(int status, void*) {
    if ((status & kStatusBits) == 0 || (failedCheck() == nullptr && stopReason == nullptr)) {
        return;
    }
    // As the process that waits sees it: -1 is 255.
    const std::string number = std::to_string(status & kStatusBits);
    const std::string reason = reasonText();
    Email::writeLine(Email::LogLine::Stopped, {.args = {number, reason}});
}

} // namespace

void tellStops() {
    ::on_exit(tellStop, nullptr);
}

void stopsBecause(const char* reason) noexcept {
    stopReason = reason;
}
