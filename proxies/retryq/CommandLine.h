// The command line of retryq.
#pragma once

#include "retryq/Commands.h"
#include "retryq/History.h"

#include <string>
#include <vector>

namespace Retryq {

struct CommandLine {
    using Action = int (*)(const CommandLine&, const Context&);

    Action action = nullptr; // what to do; null: nothing, `status` says how to end
    bool anyTable = false;   // it can be done with a rule table that would stop retryer
    int status = 0;
    int unusable = kStop; // how to end when retryer could not run with the rule table
    std::string service = "vorn";
    bool json = false;
    Filter filter;
    ListView view;
    SummaryView grouping;
    std::vector<std::string> words; // message leaves, the address, or the file
    bool probe = false;
    bool body = false;
    Changes changes;
    History history;
    RunOptions run;
    bool fatal = false; // of check
    std::string user;   // whose rights check judges with
    Delivery delivery;
};

// Reads the arguments; help and errors are printed here.
[[nodiscard]] CommandLine readCommandLine(int argc, char** argv);

} // namespace Retryq
