// The reporter of every test program: it keeps the events. Those of failed checks are also written
// to standard error, for tests of a run that they end.
#pragma once

#include "libevrep/Reporter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

extern std::vector<GW_EVENT> reported;
extern int reportersMade;
extern int reportersGone;

// The bag as "key=value ", in key order.
[[nodiscard]] std::string bagOf(const GW_EVENT& event);

// The process ends with 1 and this event.
#define EXPECT_FAILED_CHECK(statement, event)                                                      \
    EXPECT_EXIT(statement, testing::ExitedWithCode(1), event)
