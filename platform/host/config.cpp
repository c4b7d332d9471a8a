// config.cpp: what a configuration text means. One line is one setting; each is read whole before any of it
// counts, so that a mistake costs its own line only. Finding and re-reading the file is host.cpp's.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>

#include "host.h"
#include "qzkit.h"

using std::string_view;

namespace {

struct word_value {
	string_view word;
	int value;
};

constexpr word_value modes[] = {
    {"standalone", WHOPMODE_STANDALONE}, {"controller", WHOPMODE_CONTROLLER},
    {"managed", WHOPMODE_MANAGED},       {"before-firmware-update", WHOPMODE_BEFORE_FIRMWARE_UPDATE},
    {"cloud", WHOPMODE_CLOUD},
};

// The words of vekctl too.
constexpr word_value user_types[] = {
    {"admin", ADMIN_TYPE}, {"user", USER_TYPE},     {"guest", GUEST_TYPE},
    {"ext", EXT_TYPE},     {"limited", LIMIT_TYPE}, {"ext-group", EXT_GROUP_TYPE},
};

// By user type; the columns are those of host_rights.
constexpr host_values built_in_types[] = {
    {100, 100, 1440, 1440, 1, 1},             // admin
    {USER_PRIV, USER_PRIV, 1440, 1440, 0, 1}, // user
    {USER_PRIV, USER_PRIV, 1440, 1440, 0, 1}, // guest
    {USER_PRIV, USER_PRIV, 1440, 1440, 0, 1}, // external user
    {90, 90, 1440, 1440, 1, 0},               // limited administrator
    {USER_PRIV, USER_PRIV, 1440, 1440, 0, 1}, // user of an external group
};
static_assert(std::size(built_in_types) == EXT_GROUP_TYPE + 1);

constexpr string_view blanks = " \t";

// Takes the next word off the line; empty at its end, which a comment is too.
string_view take_word(string_view &line)
{
	line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
	if (line.starts_with('#'))
		line = {};
	const string_view word = line.substr(0, line.find_first_of(blanks));
	line.remove_prefix(word.size());
	return word;
}

int find(std::span<const word_value> table, string_view word)
{
	for (const word_value &entry : table)
		if (entry.word == word)
			return entry.value;
	return -1;
}

const char *parse_right(string_view word, host_values &values)
{
	const std::size_t equals = word.find('=');
	if (equals == word.npos)
		return "not of the form RIGHT=NUMBER";
	for (std::size_t i = 0; i < std::size(host_rights); ++i) {
		if (word.substr(0, equals) != host_rights[i].name)
			continue;
		const char *end = word.data() + word.size();
		std::int32_t value;
		const auto result = std::from_chars(word.data() + equals + 1, end, value);
		if (result.ec != std::errc() || result.ptr != end || value < 0 ||
		    value > host_rights[i].limit)
			return "not a number in this right's range";
		values[i] = value;
		return nullptr;
	}
	return "no such right";
}

const char *parse_rights(string_view line, host_values &values)
{
	host_values changed = values;
	for (string_view word = take_word(line); !word.empty(); word = take_word(line))
		if (const char *wrong = parse_right(word, changed))
			return wrong;
	values = changed;
	return nullptr;
}

const char *parse_account(string_view name, string_view rights, host_config &out)
{
	if (name.empty() || name.size() >= sizeof(host_account::name))
		return "an account needs a name of at most 63 bytes";
	host_account account{};
	name.copy(account.name, name.size());
	account.values.fill(HOST_NOT_GIVEN);
	if (const char *wrong = parse_rights(rights, account.values))
		return wrong;

	int place = 0;
	while (place < out.account_count && name != out.accounts[place].name)
		++place;
	if (place == HOST_MAX_ACCOUNTS)
		return "more than 64 accounts";
	out.accounts[place] = account;
	out.account_count = std::max(out.account_count, place + 1);
	return nullptr;
}

// Null, or what is wrong with the line.
const char *parse_line(string_view line, host_config &out)
{
	if (line.size() > HOST_MAX_LINE)
		return "longer than 255 bytes";
	for (const unsigned char c : line)
		if ((c < ' ' && c != '\t') || c == 0x7f)
			return "control character";

	const string_view keyword = take_word(line);
	if (keyword.empty())
		return nullptr;
	const string_view value = take_word(line);
	if (keyword == "account")
		return parse_account(value, line, out);
	if (keyword == "type") {
		const int type = find(user_types, value);
		return type < 0 ? "no such user type" : parse_rights(line, out.types[type]);
	}
	if (keyword != "mode" && keyword != "mac")
		return "no such setting";
	if (!take_word(line).empty())
		return "more than one value";
	if (keyword == "mode") {
		const int mode = find(modes, value);
		if (mode < 0)
			return "no such mode";
		out.mode = mode;
		return nullptr;
	}
	if (!host_is_mac(value.data(), value.size()))
		return "not a MAC address";
	value.copy(out.mac, sizeof(out.mac) - 1);
	return nullptr;
}

} // namespace

bool host_is_mac(const char *text, std::size_t length)
{
	if (length != HOST_MAC_SIZE - 1)
		return false;
	for (std::size_t i = 0; i < length; ++i) {
		const bool fits =
		    i % 3 == 2 ? text[i] == ':' : std::strchr("0123456789abcdefABCDEF", text[i]) && text[i];
		if (!fits)
			return false;
	}
	return true;
}

void vek_platform_parse(const char *text, std::size_t length, host_config *out, host_complaint *complain,
                        void *arg)
{
	*out = {};
	out->mode = WHOPMODE_STANDALONE;
	std::copy(std::begin(built_in_types), std::end(built_in_types), out->types);

	string_view rest(text, length);
	for (int number = 1; !rest.empty(); ++number) {
		string_view line = rest.substr(0, rest.find('\n'));
		rest.remove_prefix(std::min(line.size() + 1, rest.size()));
		if (line.ends_with('\r'))
			line.remove_suffix(1);
		if (const char *wrong = parse_line(line, *out))
			complain(arg, number, wrong);
	}
}
