// config.cpp: the shared logon configuration block: shown, and changed field by field, after which the daemon
// is told to look at it again.
#include <csignal>

#include "shared.h"

namespace {

constexpr char block_name[] = "logon configuration block";

struct config_key {
	const char *name;
	const char *unit;
	std::uint32_t most;
	std::uint32_t (*get)(const user_config &config);
	void (*set)(user_config &config, std::uint32_t value);
};

// Some are flags that share a byte, so there is no pointing at them.
// clang-format off
#define CONFIG_KEY(field, unit, most)                                                    \
	config_key{#field, unit, most,                                                   \
		[](const user_config &config) { return std::uint32_t{config.field}; },   \
		[](user_config &config, std::uint32_t value) { config.field = value; }}
// clang-format on

constexpr config_key keys[] = {
    CONFIG_KEY(enforce_admin_logon_count, "", 1),       CONFIG_KEY(enforce_access_logon_count, "", 1),
    CONFIG_KEY(browser_close_with_logout, "", 1),       CONFIG_KEY(max_admin_logon_count, "", UINT32_MAX),
    CONFIG_KEY(max_access_logon_count, "", UINT32_MAX), CONFIG_KEY(enable_idle_detection, "", 1),
    CONFIG_KEY(max_idle_minute, "minutes", UINT32_MAX), CONFIG_KEY(enable_auto_lease_update, "", 1),
};

void print(const settings &set, const user_config &config)
{
	if (set.json) {
		json result = json_result();
		for (const config_key &key : keys)
			result["config"][key.name] = key.get(config);
		return put_json(result);
	}
	table lines({{"KEY", cutting::exact}, {"VALUE", cutting::exact}, {"UNIT"}});
	for (const config_key &key : keys)
		lines.row({key.name, std::to_string(key.get(config)), key.unit});
	lines.print(set);
}

void show_config(const settings &set)
{
	const shared_block<const user_config> block(USER_CONFIG_IPC_KEY, block_name, false);
	print(set, *block);
}

const config_key &key_named(const std::string &name)
{
	for (const config_key &key : keys)
		if (name == key.name)
			return key;
	throw failure{status_usage, "there is no key \"" + escaped(name) + "\"" +
					did_you_mean(name, config_key_names()) + "; see: vekctl config show"};
}

void get_config(const settings &set, const std::string &name)
{
	const config_key &key = key_named(name);
	const shared_block<const user_config> block(USER_CONFIG_IPC_KEY, block_name, false);
	if (!set.json)
		return put_line(std::to_string(key.get(*block)));
	json result = json_result();
	result["config"][key.name] = key.get(*block);
	put_json(result);
}

struct assignment {
	const config_key *key;
	std::uint32_t value;
};

assignment parse(const std::string &text)
{
	const std::size_t equals = text.find('=');
	const std::string name = text.substr(0, equals);
	const config_key *const found = &key_named(name);
	const auto value = equals == std::string::npos ? std::nullopt : whole_number(text.substr(equals + 1));
	if (!value || *value < 0 || *value > found->most)
		throw failure{status_usage,
			      name + " needs a number from 0 to " + std::to_string(found->most)};
	return {found, static_cast<std::uint32_t>(*value)};
}

void set_config(const settings &set, const std::vector<std::string> &texts)
{
	std::vector<assignment> assignments;
	assignments.reserve(texts.size());
	for (const std::string &text : texts)
		assignments.push_back(parse(text));
	const int pid = daemon_pid();
	signal_daemon(pid, 0); // before anything is changed
	const shared_block<user_config> block(USER_CONFIG_IPC_KEY, block_name, true);
	for (const auto &[key, value] : assignments)
		key->set(*block, value);
	signal_daemon(pid, SIGHUP);
	if (set.json)
		print(set, *block);
}

} // namespace

std::vector<std::string> config_key_names()
{
	std::vector<std::string> names;
	for (const config_key &key : keys)
		names.emplace_back(key.name);
	return names;
}

void add_config_command(CLI::App &app, settings &set)
{
	CLI::App *config = add_command(
	    app, set, "config", "The shared logon configuration: show (as without), get or set",
	    "vekctl config set enable_idle_detection=1 max_idle_minute=10", [&set] { show_config(set); });
	config->require_subcommand(0, 1);
	add_command(*config, set, "show", "Show the configuration", "vekctl config show --json",
		    [&set] { show_config(set); });
	auto name = std::make_shared<std::string>();
	add_command(*config, set, "get", "One value, without anything else",
		    "vekctl config get max_idle_minute", [&set, name] { get_config(set, *name); })
	    ->add_option("KEY", *name, "a key as config show lists them")
	    ->required();
	auto texts = std::make_shared<std::vector<std::string>>();
	add_command(*config, set, "set", "Change keys and tell the daemon",
		    "vekctl config set max_idle_minute=10", [&set, texts] { set_config(set, *texts); })
	    ->add_option("KEY=VALUE", *texts, "keys as config show lists them")
	    ->required();
}
