// The command line of retryq.
#pragma once

#include "retryq/Commands.h"
#include "retryq/History.h"

#include <string>
#include <vector>

namespace Retryq {

struct CommandLine {
    std::string command; // the subcommand's name; empty: nothing to do, `status` says how to end
    int status = 0;
    std::string service = "vorn";
    bool json = false;
    Filter filter;
    ListView view;
    SummaryView grouping;
    std::vector<std::string> words; // message leaves, the address, or the file
    bool body = false;
    bool yes = false;
    History history;
};

// Reads the arguments; help and errors are printed here.
[[nodiscard]] CommandLine readCommandLine(int argc, char** argv);

} // namespace Retryq
