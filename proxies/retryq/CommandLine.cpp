#include "retryq/CommandLine.h"

#include <CLI/CLI.hpp>

#include <strings.h>

#include <map>

namespace Retryq {

namespace {

const std::map<std::string, std::int64_t> kTimeUnits{
    {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};

// "-as" is no option in the usual form, but it is the gateway's.
std::vector<std::string> withUsualOptions(int argc, char** argv) {
    std::vector<std::string> words;
    for (int i = argc - 1; i > 0; --i) { // the parser takes them from the back
        words.emplace_back(::strcasecmp(argv[i], "-as") == 0 ? "--as" : argv[i]);
    }
    return words;
}

void addFilter(CLI::App& command, Filter& filter) {
    const CLI::AsNumberWithUnit duration(kTimeUnits, CLI::AsNumberWithUnit::CASE_INSENSITIVE,
                                         "TIME");
    const CLI::Validator given(
        [](const std::string& word) { return word.empty() ? "must not be empty" : ""; }, "");
    command.add_option("--domain", filter.domains, "a recipient in this domain")->check(given);
    command
        .add_option("--recipient", filter.recipients,
                    "this recipient; * stands for any text: *@lab.example")
        ->check(given);
    command
        .add_option("--sender", filter.senders, "this sender; * stands for any text, <> for none")
        ->check(given);
    command.add_option("--code", filter.codes, "a recipient of this result code");
    command.add_option("--older", filter.olderThan, "only at least this old: 90, 15m, 2h, 3d")
        ->transform(duration);
    command.add_option("--younger", filter.youngerThan, "only at most this old")
        ->transform(duration);
    command.add_option("--state", filter.state, "due, waiting, overdue, unreadable or held")
        ->check(CLI::IsMember({"due", "waiting", "overdue", "unreadable", "held"}));
}

void addHistory(CLI::App& app, CommandLine& line) {
    CLI::App* const report =
        app.add_subcommand("report", "what became of mail: by hour, domain, reason and server");
    report->add_option("FILE", line.history.files, "log files; the journal without");
    report->add_option("--top", line.history.top, "rows of each table")->capture_default_str();
    report->add_option("--svg", line.history.svg, "a picture of the hours into this file");
    CLI::App* const story =
        app.add_subcommand("story", "everything that happened to a message or an address");
    story->add_option("MESSAGE|ADDRESS", line.words, "leaf name, or an address")
        ->required()
        ->expected(1);
    story->add_option("--log", line.history.files, "log files; the journal without");
    for (CLI::App* const command : {report, story}) {
        command->add_option("--since", line.history.since,
                            "since then: 90, 15m, 2h, 3d, or \"2026-11-21 14:05\"");
    }
}

CLI::App* addChange(CLI::App& app, const char* name, const char* help, CommandLine& line) {
    CLI::App* const command = app.add_subcommand(name, help);
    command->add_option("MESSAGE", line.words, "leaf names")->required();
    command->add_flag("-y,--yes", line.yes, "do not ask");
    return command;
}

void addCommands(CLI::App& app, CommandLine& line) {
    CLI::App* const list = app.add_subcommand("list", "a line a message, the oldest first");
    addFilter(*list, line.filter);
    list->add_option("--sort", line.view.sort, "age, size, tries, next or rcpts")
        ->check(CLI::IsMember({"age", "size", "tries", "next", "rcpts"}));
    list->add_option("--limit", line.view.limit, "at most so many messages");
    list->add_flag("--recipients", line.view.recipients, "each recipient with its last result");
    CLI::App* const show = app.add_subcommand("show", "all about one message");
    show->add_option("MESSAGE", line.words, "leaf name")->required()->expected(1);
    show->add_flag("--body", line.body, "its whole text");
    CLI::App* const summary =
        app.add_subcommand("summary", "recipients by domain and age: where mail is stuck");
    summary->add_option("--by", line.grouping.by, "domain, code or sender")
        ->check(CLI::IsMember({"domain", "code", "sender"}));
    summary->add_option("--sort", line.grouping.sort, "age (of the oldest) or count")
        ->check(CLI::IsMember({"age", "count"}));
    summary->add_option("--top", line.grouping.top, "only the first so many rows");
    app.add_subcommand("route", "where mail for an address would go now, and why")
        ->add_option("ADDRESS", line.words, "a recipient")
        ->required()
        ->expected(1);
    app.add_subcommand("check", "judge rule table and spool; 0 well, 1 warnings, 2 would stop");
    addChange(app, "remove", "delete messages", line);
    addChange(app, "retry", "make messages due now", line);
    addHistory(app, line);
    app.add_subcommand("metrics", "figures for Prometheus")
        ->add_option("FILE", line.words, "written by rename; standard output without")
        ->expected(0, 1);
}

} // namespace

CommandLine readCommandLine(int argc, char** argv) {
    CommandLine line;
    CLI::App app("Look at the mail gateway's deferred queue, and work on it.", "retryq");
    app.add_option("--as", line.service, "(or -as) service whose rule table lines count")
        ->capture_default_str();
    app.add_flag("--json", line.json, "one JSON object a line");
    app.set_version_flag("--version", RETRYQ_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer("retryq COMMAND --help tells more; retryq(8) tells all.");
    addCommands(app, line);
    try {
        app.parse(withUsualOptions(argc, argv));
    } catch (const CLI::ParseError& error) {
        constexpr int kWrong = 1;
        line.status = app.exit(error) == 0 ? 0 : kWrong;
        return line;
    }
    line.command = app.get_subcommands().front()->get_name();
    return line;
}

} // namespace Retryq
