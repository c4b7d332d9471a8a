// main.cpp: vekctl's arguments and its exit status. A command only says what it would run while the arguments
// are read; it runs once all of them have been understood, so that nothing is half done.
#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>

#include "fields.h"

namespace {

void add_common_options(CLI::App &command, settings &set)
{
	command.add_flag("--json", set.json, "one line of JSON instead of a table")->group("Everywhere");
	command.add_flag("--no-header", set.no_header, "tables without their first line")
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
	add_session_commands(app, set);
	add_watch_command(app, set);
	add_event_commands(app, set);
	add_update_commands(app, set);
	add_config_command(app, set);
	add_lockouts_command(app, set);
	add_stations_command(app, set);

	// The parser would only say that a command is missing.
	int first = 1;
	while (first < argc && argv[first][0] == '-')
		first += std::string_view(argv[first]) == "--timeout" ? 2 : 1;
	const auto is_first = [&](const CLI::App *command) { return command->get_name() == argv[first]; };
	if (first < argc && app.get_subcommands(is_first).empty())
		return end_with(
		    {status_usage, "there is no command \"" + escaped(argv[first]) + "\" (see --help)"});

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
	std::setlocale(LC_CTYPE, "C.UTF-8"); // for the width of characters
	try {
		return run(argc, argv);
	} catch (const failure &why) {
		return end_with(why);
	} catch (const std::exception &error) {
		return end_with({status_refused, error.what()});
	}
}
