// main.cpp: vekctl's arguments and its exit status. A command only says what it would run while the arguments
// are read; it runs once all of them have been understood, so that nothing is half done.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>

#include "vekctl.h"

namespace {

void add_common_options(CLI::App &command, settings &set)
{
	command.add_flag("--json", set.json, "one line of JSON instead of a table")->group("Everywhere");
	command.add_flag("--no-header", set.no_header, "tables without their first line")
	    ->group("Everywhere");
	command.add_flag("--full", set.full, "cut nothing, however narrow the terminal is")
	    ->group("Everywhere");
	command.add_flag("--no-pager", set.no_pager, "long tables too straight to the terminal")
	    ->group("Everywhere");
	command
	    .add_option_function<std::string>(
		"--time", [&set](const std::string &how) { set.absolute = how == "absolute"; },
		"durations (relative, when not given) or dates (absolute)")
	    ->type_name("HOW")
	    ->check(CLI::IsMember({"relative", "absolute"}))
	    ->group("Everywhere");
	command.add_option("--timeout", set.timeout, "longest wait for one answer (5)")
	    ->type_name("SECONDS")
	    ->check(CLI::Range(0.001, 86400.0))
	    ->group("Everywhere");
}

// Options are the names of the record's fields with dashes; the names themselves are understood too.
std::string with_dashes(std::string argument)
{
	const std::size_t end = std::min(argument.find('='), argument.size());
	if (argument.starts_with("--") &&
	    find_field(vek_event_fields, argument.substr(2, end - 2)) != nullptr)
		std::replace(argument.begin(), argument.begin() + static_cast<std::ptrdiff_t>(end), '_', '-');
	return argument;
}

int end_with(const failure &why)
{
	if (!why.message.empty())
		std::fprintf(stderr, "vekctl: %s\n", why.message.c_str());
	return why.status;
}

const CLI::App &chosen(const CLI::App &app)
{
	const auto used = app.get_subcommands();
	return used.empty() ? app : chosen(*used.front());
}

std::string joined(const std::vector<std::string> &words, const char *between)
{
	std::string line;
	for (const std::string &word : words)
		line += (line.empty() ? "" : between) + word;
	return line;
}

// What the parser could not place, in the order given, and what would have been understood instead.
std::string misplaced(const CLI::App &app)
{
	const CLI::App &command = chosen(app);
	const std::vector<std::string> words = app.remaining(true);
	std::vector<std::string> known, own;
	for (const CLI::Option *option :
	     command.get_options([](const CLI::Option *o) { return o->nonpositional(); })) {
		for (const std::string &name : option->get_lnames())
			known.push_back("--" + name);
		if (option->get_group() != "Everywhere" && !option->check_name("--help"))
			own.push_back(option->get_name());
	}
	for (const CLI::App *sub : command.get_subcommands({}))
		known.push_back(sub->get_name());
	const std::string first = words.front().substr(0, words.front().find('='));
	return "\"" + command.get_name() + "\" does not take " + joined(words, " ") +
	       did_you_mean(first, known) +
	       (own.empty() || own.size() > 16 ? "" : "; it takes " + joined(own, ", "));
}

// The words that a value may be, one a line: for the completion of shells, which the help does not show.
void add_words_command(CLI::App &app, settings &set)
{
	const auto kind = std::make_shared<std::string>();
	const std::map<std::string, std::vector<std::string> (*)()> lists = {{"columns", column_names},
									     {"events", reported_event_names},
									     {"keys", config_key_names},
									     {"services", service_names},
									     {"types", all_type_names}};
	CLI::App *command = add_command(app, set, "words", "", "vekctl words services",
					[kind, lists] { put_line(joined(lists.at(*kind)(), "\n")); });
	command->group("");
	command->add_option("kind", *kind)->required()->check(CLI::IsMember(lists));
}

int run(int argc, char **argv)
{
	CLI::App app("Shows and reports to vekd who is logged in on this device", "vekctl");
	settings set;
	app.fallthrough();
	app.require_subcommand(1);
	app.set_version_flag("--version", "vekctl " VEK_VERSION);
	app.footer("Exit status: 0 ok, 1 not found or refused, 2 usage, 3 cannot connect, 4 time-out,\n"
		   "5 unexpected answer. vekctl COMMAND --help shows a command's options.");
	add_common_options(app, set);
	add_status_command(app, set);
	add_session_commands(app, set);
	add_watch_command(app, set);
	add_event_commands(app, set);
	add_update_commands(app, set);
	add_config_command(app, set);
	add_lockouts_command(app, set);
	add_stations_command(app, set);
	add_words_command(app, set);

	// The parser would only say that a command is missing.
	int first = 1;
	while (first < argc && argv[first][0] == '-')
		first +=
		    std::string_view(argv[first]) == "--timeout" || std::string_view(argv[first]) == "--time"
			? 2
			: 1;
	const auto is_first = [&](const CLI::App *command) { return command->get_name() == argv[first]; };
	if (first < argc && app.get_subcommands(is_first).empty()) {
		std::vector<std::string> names;
		for (const CLI::App *command : app.get_subcommands({}))
			names.push_back(command->get_name());
		return end_with({status_usage, "there is no command \"" + escaped(argv[first]) + "\"" +
						   did_you_mean(argv[first], names) + " (see --help)"});
	}

	std::vector<std::string> arguments;
	for (int i = argc - 1; i > 0; i--) // the parser takes them last first
		arguments.push_back(with_dashes(argv[i]));
	try {
		app.parse(arguments);
		set.run();
	} catch (const CLI::CallForHelp &) {
		put(app.help());
	} catch (const CLI::CallForVersion &) {
		put(app.version() + "\n");
	} catch (const CLI::ExtrasError &) {
		return end_with({status_usage, escaped(misplaced(app)) + " (see --help)"});
	} catch (const CLI::ParseError &error) {
		return end_with({status_usage, escaped(error.what()) + " (see --help)"});
	}
	return status_ok;
}

} // namespace

CLI::App *add_command(CLI::App &parent, settings &set, const std::string &name,
		      const std::string &description, const std::string &example,
		      const std::function<void()> &run)
{
	CLI::App *command = parent.add_subcommand(name, description);
	command->footer("Example: " + example);
	add_common_options(*command, set);
	// The innermost command's word counts, whichever order the callbacks come in.
	if (run)
		command->parse_complete_callback([command, &set, run] {
			if (command->get_subcommands().empty())
				set.run = run;
		});
	return command;
}

int main(int argc, char **argv)
{
	std::signal(SIGPIPE, SIG_IGN);
	try {
		return run(argc, argv);
	} catch (const failure &why) {
		return end_with(why);
	} catch (const std::exception &error) {
		return end_with({status_refused, error.what()});
	}
}
