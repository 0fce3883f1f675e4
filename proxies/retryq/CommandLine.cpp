#include "retryq/CommandLine.h"

#include "fwall/hexesc.h"
#include "retryq/Nearest.h"
#include "retryq/history/LogSource.h"

#include <CLI/CLI.hpp>

#include <strings.h>

#include <iostream>
#include <utility>

namespace Retryq {

namespace {

constexpr std::size_t kShown = 128; // bytes of a word that is no command

constexpr int kMostRows = 1'000'000'000;

// "-as" is no option in the usual form, but it is the gateway's; "help list" is what many type.
std::vector<std::string> withUsualOptions(int argc, char** argv) {
    std::vector<std::string> words;
    for (int i = argc - 1; i > 0; --i) { // the parser takes them from the back
        words.emplace_back(::strcasecmp(argv[i], "-as") == 0 ? "--as" : argv[i]);
    }
    if (!words.empty() && words.back() == "help") {
        words.pop_back();
        words.emplace(words.begin(), "--help");
    }
    return words;
}

CLI::Validator given() {
    return {[](const std::string& word) { return word.empty() ? "must not be empty" : ""; }, ""};
}

CLI::Validator time() {
    return {[](std::string& word) {
                const std::int64_t seconds = secondsOf(word);
                const std::string wrong = word + " is no time: 90, 15m, 2h or 3d is one";
                word = std::to_string(seconds);
                return seconds < 0 ? wrong : "";
            },
            "TIME"};
}

CLI::Validator code() {
    return {[](const std::string& word) {
                const bool number =
                    word == "-1" || (!word.empty() && word.size() < 6 &&
                                     word.find_first_not_of("0123456789") == std::string::npos);
                return number ? "" : word + " is no result code: 450 is one, -1 is new mail's";
            },
            ""};
}

// May be given more than once, each time with one word: the next is not its own, but a message.
template<typename Words>
CLI::Option* addWords(CLI::App& command, const char* name, Words& words, const char* help) {
    return command.add_option(name, words, help)->allow_extra_args(false);
}

void addRecipient(CLI::App& command, Filter& filter) {
    addWords(command, "--recipient", filter.recipients,
             "this recipient; * stands for any text: *@lab.example")
        ->check(given());
}

// What each command's help ends with.
constexpr std::pair<const char*, const char*> kExamples[]{
    {"run", "  retryq run --now"},
    {"deliver", "  retryq deliver --domain lab.example\n  retryq deliver --trace q7Gh21"},
    {"who", ""},
    {"list", "  retryq list --domain lab.example --older 4h\n"
             "  retryq list --recipient 'anna@*' --recipients --limit 20"},
    {"show", "  retryq show q7Gh21"},
    {"summary", "  retryq summary --sort count --top 10\n  retryq summary --by code"},
    {"route", "  retryq route anna@lab.example"},
    {"check", ""},
    {"settings", ""},
    {"metrics", ""},
    {"report", "  retryq report --since 1h\n  retryq report /var/log/syslog.1 /var/log/syslog"},
    {"story", "  retryq story anna@lab.example --since 2d"},
    {"remove", "  retryq remove --sender spammer@corp.example\n"
               "  retryq remove --recipient gone@lab.example q7Gh21"},
    {"hold", "  retryq hold --domain lab.example"},
    {"release", "  retryq release --domain lab.example"},
    {"return", "  retryq return q7Gh21"},
    {"retry", "  retryq retry --code 450"},
};

void addFilter(CLI::App& command, Filter& filter) {
    addWords(command, "--domain", filter.domains, "a recipient in this domain")->check(given());
    addWords(command, "--sender", filter.senders, "this sender; * stands for any text, <> for none")
        ->check(given());
    addWords(command, "--code", filter.codes, "a recipient of this result code")->check(code());
    command.add_option("--older", filter.olderThan, "only at least this old: 90, 15m, 2h, 3d")
        ->transform(time());
    command.add_option("--younger", filter.youngerThan, "only at most this old")->transform(time());
    command
        .add_option("--state", filter.state, "due, waiting, overdue, unreadable, on-hold or held")
        ->check(CLI::IsMember({"due", "waiting", "overdue", "unreadable", "on-hold", "held"}));
}

// Makes it one of the commands; the action is what main() calls when it was given.
CLI::App* add(CLI::App& app, CommandLine& line, const char* name, const char* help,
              CommandLine::Action action) {
    CLI::App* const command = app.add_subcommand(name, help);
    command->callback([&line, action] { line.action = action; });
    return command;
}

CLI::App* addForAnyTable(CLI::App& app, CommandLine& line, const char* name, const char* help,
                         CommandLine::Action action) {
    CLI::App* const command = app.add_subcommand(name, help);
    command->callback([&line, action] {
        line.action = action;
        line.anyTable = true;
    });
    return command;
}

template<Change What>
void addChange(CLI::App& app, CommandLine& line, const char* name, const char* help) {
    CLI::App* const command =
        add(app, line, name, help, [](const CommandLine& given, const Context& context) {
            return change(context, What, given.changes);
        });
    command->add_option("MESSAGE", line.changes.names, "leaf names, or how they begin");
    addFilter(*command, line.changes.filter);
    if constexpr (What == Change::Remove) {
        command
            ->add_option("--recipient", line.changes.recipient,
                         "take only this recipient off the list")
            ->check(given());
    } else {
        addRecipient(*command, line.changes.filter);
    }
    command->add_flag("-y,--yes", line.changes.yes, "do not ask");
}

std::string firstWord(const CommandLine& line) {
    return line.words.empty() ? "" : line.words.front();
}

void addHistory(CLI::App& app, CommandLine& line) {
    CLI::App* const reporting =
        add(app, line, "report", "what became of mail: by hour, domain, reason and server",
            [](const CommandLine& given, const Context& context) {
                return report(context, given.history);
            });
    reporting->add_option("FILE", line.history.files, "log files; the journal without");
    reporting->add_option("--top", line.history.top, "rows of each table")
        ->check(CLI::Range(1, kMostRows))
        ->capture_default_str();
    reporting->add_option("--svg", line.history.svg, "a picture of the hours into this file");
    CLI::App* const telling =
        add(app, line, "story", "everything that happened to a message or an address",
            [](const CommandLine& given, const Context& context) {
                return story(context, given.history, firstWord(given));
            });
    telling->add_option("MESSAGE|ADDRESS", line.words, "leaf name, or an address")
        ->required()
        ->expected(1);
    addWords(*telling, "--log", line.history.files, "log files; the journal without");
    for (CLI::App* const command : {reporting, telling}) {
        command->add_option("--since", line.history.since,
                            "since then: 90, 15m, 2h, 3d, or \"2026-11-21 14:05\"");
    }
}

void addLooking(CLI::App& app, CommandLine& line) {
    using Line = const CommandLine&;
    using In = const Context&;
    CLI::App* const listing =
        add(app, line, "list", "a line a message, the oldest first",
            [](Line given, In context) { return list(context, given.filter, given.view); });
    addFilter(*listing, line.filter);
    addRecipient(*listing, line.filter);
    listing->add_option("--sort", line.view.sort, "age, size, tries, next or rcpts")
        ->check(CLI::IsMember({"age", "size", "tries", "next", "rcpts"}));
    listing->add_option("--limit", line.view.limit, "at most so many messages")
        ->check(CLI::Range(1, kMostRows));
    listing->add_flag("--recipients", line.view.recipients, "each recipient with its last result");
    CLI::App* const showing =
        add(app, line, "show", "all about one message",
            [](Line given, In context) { return show(context, firstWord(given), given.body); });
    showing->add_option("MESSAGE", line.words, "leaf name")->required()->expected(1);
    showing->add_flag("--body", line.body, "its whole text");
    CLI::App* const summing =
        add(app, line, "summary", "recipients by domain and age: where mail is stuck",
            [](Line given, In context) { return summary(context, given.grouping); });
    summing->add_option("--by", line.grouping.by, "domain, code or sender")
        ->check(CLI::IsMember({"domain", "code", "sender"}));
    summing->add_option("--sort", line.grouping.sort, "age (of the oldest) or count")
        ->check(CLI::IsMember({"age", "count"}));
    summing->add_option("--top", line.grouping.top, "only the first so many rows")
        ->check(CLI::Range(1, kMostRows));
}

void addRun(CLI::App& app, CommandLine& line) {
    constexpr int kMost = 10000;
    CLI::App* const running = app.add_subcommand("run", "try what is due, many messages at once");
    running->callback([&line] {
        line.action = [](const CommandLine& given, const Context& context) {
            return run(context, given.run);
        };
        line.unusable = kNoTable;
    });
    running->add_flag("--now", line.run.now, "also what was tried a moment ago");
    running->add_option("--workers", line.run.workers, "processes at most")
        ->check(CLI::Range(1, kMost))
        ->capture_default_str();
    running
        ->add_option("--per-destination", line.run.perDestination,
                     "conversations at once with one domain, and with one server")
        ->check(CLI::Range(1, kMost))
        ->capture_default_str();
    running
        ->add_option("--progress", line.run.progress,
                     "seconds between two lines about it, without a terminal")
        ->check(CLI::Range(1, kMost))
        ->capture_default_str();
}

void addCheck(CLI::App& app, CommandLine& line) {
    CLI::App* const checking = addForAnyTable(
        app, line, "check",
        "judge table, host and spool; 0 well, 1 warnings, 2 would stop, 3 loses mail",
        [](const CommandLine& given, const Context& context) {
            return given.fatal ? checkFatal(context) : check(context, given.user);
        });
    checking->add_flag("--fatal", line.fatal,
                       "only whether retryer would stop: status 255, else 0; quick");
    checking->add_option("--user", line.user, "judge the spools for this user (as root)");
}

void addDeliver(CLI::App& app, CommandLine& line) {
    CLI::App* const delivering =
        add(app, line, "deliver", "try these messages now, and show what becomes of them",
            [](const CommandLine& given, const Context& context) {
                return deliver(context, given.delivery);
            });
    delivering->add_option("MESSAGE", line.delivery.names, "leaf names, or how they begin");
    addFilter(*delivering, line.delivery.filter);
    addRecipient(*delivering, line.delivery.filter);
    delivering->add_flag("--trace", line.delivery.trace, "show each command and reply");
    add(app, line, "who", "what each walker and worker does now, and who holds which lock",
        [](const CommandLine&, const Context& context) { return who(context); });
}

void addJudging(CLI::App& app, CommandLine& line) {
    using Line = const CommandLine&;
    using In = const Context&;
    CLI::App* const routing =
        add(app, line, "route", "where mail for an address would go now, and why",
            [](Line given, In context) { return route(context, firstWord(given), given.probe); });
    routing->add_option("ADDRESS", line.words, "a recipient")->required()->expected(1);
    routing->add_flag("--probe", line.probe, "connect, and tell what the server offers");
    addCheck(app, line);
    addForAnyTable(app, line, "settings", "every key of the rule table that retryer reads",
                   [](Line, In context) { return showSettings(context); });
    CLI::App* const metrics =
        add(app, line, "metrics", "figures for Prometheus", [](Line given, In context) {
            return Retryq::metrics(context, firstWord(given), given.history);
        });
    metrics->add_option("FILE", line.words, "written by rename; standard output without")
        ->expected(0, 1);
    metrics->add_option("--counters", line.history.counters,
                        "count outcomes from the log, and keep the counters in this file");
    addWords(*metrics, "--log", line.history.files, "log files; the journal without");
}

void addCommands(CLI::App& app, CommandLine& line) {
    addRun(app, line);
    addDeliver(app, line);
    addLooking(app, line);
    addJudging(app, line);
    addHistory(app, line);
    addChange<Change::Remove>(app, line, "remove", "delete messages, or one recipient of each");
    addChange<Change::Hold>(app, line, "hold", "let every walker pass messages over");
    addChange<Change::Release>(app, line, "release", "let them be tried again");
    addChange<Change::Return>(app, line, "return", "give messages up now, with the return mail");
    addChange<Change::Retry>(app, line, "retry", "make messages due now");
    for (const auto& [command, examples] : kExamples) {
        app.get_subcommand(command)->footer(examples);
    }
}

std::vector<std::string> commandsOf(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* const command :
         app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(command->get_name());
    }
    return names;
}

std::vector<std::string> optionsOf(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::Option* const option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

std::string meantText(const std::string& word, const std::vector<std::string>& names) {
    const std::vector<std::string_view> candidates(names.begin(), names.end());
    const std::string_view meant = nearest(word, candidates);
    return printable(word, kShown) +
           (meant.empty() ? "" : ": did you mean " + std::string(meant) + "?");
}

// What is wrong with a word that is neither command nor option of the command that was begun; empty
// when something else is wrong.
std::string unknownText(const CLI::App& app) {
    const std::vector<CLI::App*> begun = app.get_subcommands();
    if (begun.empty()) {
        const std::vector<std::string> words = app.remaining();
        const bool command = !words.empty() && !words.front().starts_with('-');
        return command ? "unknown command " + meantText(words.front(), commandsOf(app)) : "";
    }
    for (const std::string& word : app.remaining(true)) {
        if (word.starts_with("--")) {
            return "unknown option " +
                   meantText(word.substr(0, word.find('=')), optionsOf(*begun.front()));
        }
    }
    return "";
}

// "retryq list: --sort: ...": the program, the command that was begun, and the option.
std::string failureText(const CLI::App& app, const CLI::Error& error) {
    std::string program = "retryq";
    for (const CLI::App* const command : app.get_subcommands()) {
        program += " " + command->get_name();
    }
    const std::string unknown = unknownText(app);
    const bool none = error.get_name() == "RequiredError" && app.get_subcommands().empty();
    return program + ": " +
           (!unknown.empty() ? unknown
            : none           ? "which command? summary, list and show look at the queue"
                             : printable(error.what(), 4 * kShown)) +
           "\n" + program + " --help tells more\n";
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
    app.failure_message(
        [](const CLI::App* where, const CLI::Error& error) { return failureText(*where, error); });
    app.footer("retryq COMMAND --help tells more; retryq(8) tells all.");
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    addCommands(app, line);
    try {
        app.parse(withUsualOptions(argc, argv));
    } catch (const CLI::ParseError& error) {
        constexpr int kWrong = 1;
        line.status = app.exit(error) != 0 ? kWrong : 0;
        return line;
    }
    return line;
}

} // namespace Retryq
