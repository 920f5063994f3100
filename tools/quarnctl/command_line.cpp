#include "command_line.h"

#include "changing.h"
#include "confirming.h"
#include "documents.h"
#include "guard.h"
#include "reading.h"
#include "remote.h"
#include "report.h"
#include "status.h"
#include "values.h"
#include "watching.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <functional>
#include <memory>

namespace quarnctl {

namespace {

constexpr char FOOTER[] =
    "KEY is a name like [NIC/eth0]MTU; 'quarnctl list' shows all of them. Put keys in quotes: the shell "
    "has a use for brackets.\n"
    "Exit status: 0 done, 1 refused, 2 wrong usage, 3 no daemon. See quarnctl(1).";

// All that may stand on a command line.
struct Words {
    Session session;
    ChangeOptions change;
    std::vector<std::string> keys;
    std::string pattern;
    std::string file;
    std::string state_folder = STATE_FOLDER;
    double interval_seconds = 2;
    bool all = false;
    bool yes = false;
    bool skip_unknown = false;
    bool stay = false;
};

// CLI11 takes a word in brackets for a list of words, as in "[DNS/Manual]Servers=[]". With a mark before it
// it is a word like any other.
constexpr char MARK = '\x01';

std::vector<std::string> marked_words(int argc, char** argv)
{
    std::vector<std::string> words;
    // CLI11 takes its arguments from the end.
    for (int i = argc - 1; i > 0; --i) {
        const std::string_view word = argv[i];
        words.push_back(std::string(word.starts_with('[') ? 1 : 0, MARK).append(word));
    }
    return words;
}

void unmark(std::string& word)
{
    if (word.starts_with(MARK))
        word.erase(0, 1);
}

using Run = std::function<int(Words& words)>;

// A command with its way to run.
struct Command {
    CLI::App* parser;
    Run run;
};
using Commands = std::vector<Command>;

CLI::App* add(Commands& commands, CLI::App& parser, const char* name, const char* help, Run run)
{
    CLI::App* command = parser.add_subcommand(name, help);
    commands.push_back({command, std::move(run)});
    return command;
}

void add_keys(CLI::App* command, Words& words, const char* name = "KEY")
{
    command->add_option("keys", words.keys, "")->option_text(std::string(name) + "...")->required();
}

void add_change_options(CLI::App* command, Words& words)
{
    command->add_flag("--no-wait", words.session.no_wait, "do not wait until the change is carried out");
    command
        ->add_option("--confirm", words.change.confirm_seconds,
                     "take the change back unless 'quarnctl confirm' comes within this time")
        ->option_text("SECONDS")
        ->check(CLI::Range(1U, 86400U));
}

void add_dry_run(CLI::App* command, Words& words)
{
    command->add_flag("-n,--dry-run", words.change.dry_run, "show what would change, and change nothing");
}

void add_reading_commands(Commands& commands, CLI::App& parser, Words& words)
{
    add_keys(add(commands, parser, "get", "print the values of settings",
                 [](Words& given) { return run_get(given.session, given.keys); }),
             words);
    add(commands, parser, "list", "list settings: key, where it is kept, whether it is set, value",
        [](Words& given) { return run_list(given.session, given.pattern); })
        ->add_option("pattern", words.pattern, "a part of the keys, * and ? allowed")
        ->option_text("PATTERN");
    add_keys(add(commands, parser, "describe", "explain settings",
                 [](Words& given) { return run_describe(given.session, given.keys); }),
             words);
    add(commands, parser, "diff", "show the settings that differ from their defaults",
        [](Words& given) { return run_diff(given.session); });
    add(commands, parser, "status", "show the state of the network on one screen",
        [](Words& given) { return run_status(given.session); });
    add(commands, parser, "export", "print the stored configuration as JSON, for 'apply'",
        [](Words& given) { return run_export(given.session); });
}

int run_reset_words(Words& words)
{
    if (words.all == !words.keys.empty()) {
        complain("reset takes keys, or --all");
        return USAGE;
    }
    return words.all
               ? run_reset_all(words.session, words.yes ? Question::ANSWERED : Question::ASKED, words.change)
               : run_reset(words.session, words.keys, words.change);
}

void add_changing_commands(Commands& commands, CLI::App& parser, Words& words)
{
    CLI::App* set = add(commands, parser, "set", "change settings",
                        [](Words& given) { return run_set(given.session, given.keys, given.change); });
    add_keys(set, words, "KEY=VALUE|KEY+=ITEM|KEY-=ITEM");
    add_change_options(set, words);
    add_dry_run(set, words);

    CLI::App* reset = add(commands, parser, "reset", "put settings back to their defaults", run_reset_words);
    reset->add_option("keys", words.keys, "")->option_text("KEY...");
    reset->add_flag("--all", words.all, "all of them: the factory reset");
    reset->add_flag("-y,--yes", words.yes, "do not ask");
    add_change_options(reset, words);
    add_dry_run(reset, words);

    CLI::App* apply =
        add(commands, parser, "apply", "apply a configuration that 'export' printed", [](Words& given) {
            const UnknownKeys unknown =
                given.skip_unknown ? UnknownKeys::ARE_SKIPPED : UnknownKeys::ARE_FAULTS;
            return run_apply(given.session, given.file, unknown, given.change);
        });
    apply->add_option("file", words.file, "the file, or - for standard input")
        ->option_text("FILE")
        ->required();
    apply->add_flag("--skip-unknown", words.skip_unknown,
                    "leave out the keys that this camera does not have");
    add_change_options(apply, words);
    add_dry_run(apply, words);
}

void add_other_commands(Commands& commands, CLI::App& parser, Words& words)
{
    add(commands, parser, "confirm", "keep the change that waits for it",
        [](Words& given) { return run_confirm(given.session); });
    add(commands, parser, "rollback", "take the change that waits for a confirm back at once",
        [](Words& given) { return run_rollback(given.session); });
    add(commands, parser, "monitor", "print the daemon's signals as they come",
        [](Words& given) { return run_monitor(given.session); });
    CLI::App* watch = add(commands, parser, "watch", "print values as they change", [](Words& given) {
        constexpr double MILLISECONDS = 1000;
        return run_watch(given.session, given.keys,
                         static_cast<unsigned>(given.interval_seconds * MILLISECONDS));
    });
    add_keys(watch, words);
    watch->add_option("--interval", words.interval_seconds, "how often to look (default 2)")
        ->option_text("SECONDS")
        ->check(CLI::Range(0.1, 3600.0));
}

// What packages, documents and the shells' completion run.
void add_hidden_commands(Commands& commands, CLI::App& parser, Words& words)
{
    CLI::App* guard = add(commands, parser, "guard", "", [](Words& given) {
        return run_guard(given.state_folder, given.stay ? Stay::FOR_GOOD : Stay::WHILE_NEEDED);
    });
    guard->add_flag("--stay", words.stay, "go on when there is nothing to watch");
    guard->group("");
    add(commands, parser, "settings-document", "", [](Words&) {
        print_settings_document();
        return DONE;
    })->group("");
    add(commands, parser, "settings-manual", "", [](Words&) {
        print_settings_manual();
        return DONE;
    })->group("");
    add(commands, parser, "complete-keys", "", [](Words&) {
        print_keys_for_completion();
        return DONE;
    })->group("");
}

// The folder of the records is the camera's own.
bool must_run_on_camera(const Words& words, const std::string& command)
{
    const bool uses_record =
        command == "confirm" || command == "rollback" || words.change.confirm_seconds > 0;
    return !words.session.host.empty() && uses_record;
}

int run_there(const Words& words, const std::string& command)
{
    std::vector<std::string> arguments = {command};
    if (words.session.json)
        arguments.emplace_back("--json");
    arguments.push_back("--timeout=" + std::to_string(words.session.timeout_seconds));
    if (words.change.confirm_seconds > 0)
        arguments.push_back("--confirm=" + std::to_string(words.change.confirm_seconds));
    for (const auto& [is_given, name] :
         {std::pair(words.change.dry_run, "--dry-run"), std::pair(words.skip_unknown, "--skip-unknown"),
          std::pair(words.all, "--all"), std::pair(words.yes, "--yes")}) {
        if (is_given)
            arguments.emplace_back(name);
    }
    arguments.emplace_back("--");
    arguments.insert(arguments.end(), words.keys.begin(), words.keys.end());
    if (command == "apply")
        arguments.emplace_back("-");
    return run_on_camera(words.session, arguments, words.file == "-" ? "" : words.file);
}

// What stands against the words although each of them could be read; empty when it is nothing.
std::string fault_of(const Words& words)
{
    for (const std::string& key : words.keys) {
        if (find_bad_byte(key) != std::string::npos)
            return "'" + printable(key) + "' is no UTF-8 text";
    }
    if (find_bad_byte(words.pattern) != std::string::npos)
        return "'" + printable(words.pattern) + "' is no UTF-8 text";
    if (words.session.no_wait && words.change.confirm_seconds > 0)
        return "--confirm waits for the change, so --no-wait has no place beside it";
    if (words.session.host.starts_with('-'))
        return "a host's name does not begin with '-'";
    // No comparison keeps it out of a range.
    if (std::isnan(words.interval_seconds))
        return "--interval: that is no number";
    return {};
}

int run(Words& words, const Command& command)
{
    for (std::string& word : words.keys)
        unmark(word);
    unmark(words.pattern);
    unmark(words.file);
    unmark(words.session.host);
    if (const std::string fault = fault_of(words); !fault.empty()) {
        complain(fault);
        return USAGE;
    }
    if (must_run_on_camera(words, command.parser->get_name()))
        return run_there(words, command.parser->get_name());
    return command.run(words);
}

int report_usage(const CLI::App& parser, const CLI::ParseError& error)
{
    std::string message = error.what();
    const bool is_wish = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
    if (is_wish)
        return parser.exit(error);
    // CLI11 says only that a command is missing.
    const std::vector<std::string> rest = parser.remaining();
    if (parser.get_subcommands().empty() && !rest.empty())
        message = "there is no command '" + rest.front() + "'";
    std::erase(message, MARK);
    complain(printable(message) + "; see 'quarnctl --help'");
    return USAGE;
}

} // namespace

int run_command_line(int argc, char** argv)
{
    CLI::App parser("Looks at and changes the network settings of a camera that runs quarn.", "quarnctl");
    Words words;
    Commands commands;
    parser.set_version_flag("--version", "quarnctl " QUARN_VERSION);
    parser.add_option("-H,--host", words.session.host, "a camera reached over SSH")->option_text("USER@HOST");
    parser.add_flag("--json", words.session.json, "print JSON, for programs");
    parser
        .add_option("--timeout", words.session.timeout_seconds,
                    "how long to wait for the daemon (default 900)")
        ->option_text("SECONDS")
        ->check(CLI::Range(1U, 86400U));
    parser.footer(FOOTER);
    parser.fallthrough();
    parser.require_subcommand(1);
    add_reading_commands(commands, parser, words);
    add_changing_commands(commands, parser, words);
    add_other_commands(commands, parser, words);
    add_hidden_commands(commands, parser, words);
    std::vector<std::string> given = marked_words(argc, argv);
    try {
        parser.parse(given);
    } catch (const CLI::ParseError& error) {
        return report_usage(parser, error);
    }
    for (const Command& command : commands) {
        if (command.parser->parsed())
            return run(words, command);
    }
    return USAGE;
}

} // namespace quarnctl
