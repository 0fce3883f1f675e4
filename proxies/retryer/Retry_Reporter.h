// The reporter of this program and of those beside it (library discarding_reporter): it discards
// every event record.
#pragma once

#include "libevrep/Reporter.h"

class Retry_Reporter : public AbstractReporter {
public:
    void report(const GW_EVENT& event) override;
};
