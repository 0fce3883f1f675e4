#include "retryer/Retry_Reporter.h"

void Retry_Reporter::report(const GW_EVENT& /*event*/) {}

std::unique_ptr<AbstractReporter> Reporter::makeInstance() {
    return std::make_unique<Retry_Reporter>();
}
