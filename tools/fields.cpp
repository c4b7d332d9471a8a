// fields.cpp: the fields of a record by name, kind by kind.
#include "fields.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <charconv>
#include <cstring>

namespace {

constexpr const char *type_names[] = {"admin", "user", "guest", "ext", "limited", "ext-group"};

constexpr const char *event_names[] = {
    nullptr,
    "login",
    "social-login-stage1",
    "social-login-stage2",
    "logout",
    "logout2",
    "reauth-timeout",
    "lease-timeout",
    "idle-timeout",
    "session-timeout",
    "foreign-logout",
    "query-result",
    "traffic",
    "tunnel-up",
    "tunnel-down",
    "user-tunnel-up",
    "user-tunnel-down",
    "web-logout",
    "force-logout",
    "update-lease-time",
    "update-idle-time",
    "update-reauth-time",
    "update-roaming-sta-ip",
    "alive",
    "query-name",
    "query-from",
    "query-from-first",
    "query-all",
    "query-total-user-num",
    "listen",
    "close",
    "timer-second",
    "timer-10seconds",
    "config-change",
    "logout-revocable",
    "logout-revoke",
    "update-accounting-status",
    "rename-radius-profile-name",
    "update-ssh-tty",
};
static_assert(std::size(event_names) == VEK_EVENT_LIMIT);

const std::byte *at(const vek_field &field, const void *record)
{
	return static_cast<const std::byte *>(record) + field.offset;
}

template <class value> value read(const vek_field &field, const void *record)
{
	value result;
	std::memcpy(&result, at(field, record), sizeof(result));
	return result;
}

bool is_deadline(const vek_field &field) { return field.kind == field_kind::u64; }

std::string attribute_text(std::uint64_t attribute)
{
	switch (attribute) {
	case VEK_USER_ATTRIBUTE_MANAGEMENT: return "management";
	case VEK_USER_ATTRIBUTE_ACCESS: return "access";
	case VEK_USER_ATTRIBUTE_MANAGEMENT | VEK_USER_ATTRIBUTE_ACCESS: return "management,access";
	default: return std::to_string(attribute);
	}
}

} // namespace

const vek_field *find_field(std::span<const vek_field> fields, std::string_view name)
{
	const auto found =
	    std::find_if(fields.begin(), fields.end(), [&](auto &field) { return name == field.name; });
	return found == fields.end() ? nullptr : &*found;
}

std::string_view text_of(const vek_field &field, const void *record)
{
	const auto *text = reinterpret_cast<const char *>(at(field, record));
	return {text, strnlen(text, field.size)};
}

std::uint64_t number_of(const vek_field &field, const void *record)
{
	switch (field.kind) {
	case field_kind::u8: return read<std::uint8_t>(field, record);
	case field_kind::i32:
		return static_cast<std::uint64_t>(std::int64_t{read<std::int32_t>(field, record)});
	case field_kind::u32: return read<std::uint32_t>(field, record);
	default: return read<std::uint64_t>(field, record);
	}
}

std::string display(const vek_field &field, const void *record, const times &when)
{
	const std::string_view name = field.name;
	switch (field.kind) {
	case field_kind::text: return escaped(text_of(field, record));
	case field_kind::ip4: return address_text(read<std::uint32_t>(field, record), in6_addr{});
	case field_kind::ip6: return address_text(0, read<in6_addr>(field, record));
	default: break;
	}
	const std::uint64_t number = number_of(field, record);
	if (name == "type")
		return type_name(static_cast<unsigned>(number));
	if (name == "attribute")
		return attribute_text(number);
	if (name == "login_time")
		return when.since(number);
	if (is_deadline(field))
		return when.until(number);
	return field.kind == field_kind::i32 ? std::to_string(static_cast<std::int64_t>(number))
					     : std::to_string(number);
}

json field_json(const vek_field &field, const void *record)
{
	switch (field.kind) {
	case field_kind::text: return std::string(text_of(field, record));
	case field_kind::ip4: return address_text(read<std::uint32_t>(field, record));
	case field_kind::ip6: return address_text(read<in6_addr>(field, record));
	case field_kind::i32: return static_cast<std::int64_t>(number_of(field, record));
	default: return number_of(field, record);
	}
}

void add_json(json &object, const vek_field &field, const void *record)
{
	object[field.name] = field_json(field, record);
	if (std::string_view(field.name) == "type")
		object["type_name"] = type_name(static_cast<unsigned>(number_of(field, record)));
}

json record_json(std::span<const vek_field> fields, const void *record)
{
	json object = json::object();
	for (const vek_field &field : fields)
		add_json(object, field, record);
	return object;
}

int compare(const vek_field &field, const void *one, const void *other)
{
	switch (field.kind) {
	case field_kind::text: return text_of(field, one).compare(text_of(field, other));
	case field_kind::ip4:
	case field_kind::ip6: return std::memcmp(at(field, one), at(field, other), field.size);
	default: break;
	}
	const std::uint64_t a = number_of(field, one);
	const std::uint64_t b = number_of(field, other);
	if (field.kind == field_kind::i32)
		return static_cast<std::int64_t>(a) < static_cast<std::int64_t>(b) ? -1 : a != b;
	return a < b ? -1 : a != b;
}

std::optional<std::string> set_field(const vek_field &field, void *record, const std::string &text)
{
	auto *to = static_cast<std::byte *>(record) + field.offset;
	const bool is_type = std::string_view(field.name) == "type";
	const auto number_within = [&](long long least, long long most) -> std::optional<std::string> {
		const auto number =
		    is_type ? std::optional<long long>(type_number(text)) : whole_number(text);
		if (!number || *number < least || *number > most)
			return "\"" + text + "\" is no number from " + std::to_string(least) + " to " +
			       std::to_string(most) + (is_type ? " and no user type" : "");
		const auto word = static_cast<std::uint32_t>(*number);
		if (field.size == sizeof(std::uint8_t))
			*to = static_cast<std::byte>(word);
		else
			std::memcpy(to, &word, sizeof(word));
		return {};
	};
	switch (field.kind) {
	case field_kind::text:
		if (text.size() >= field.size)
			return "is longer than " + std::to_string(field.size - 1) + " bytes";
		std::memset(to, 0, field.size);
		std::memcpy(to, text.data(), text.size());
		return {};
	case field_kind::ip4:
		if (inet_pton(AF_INET, text.c_str(), to) != 1)
			return "\"" + text + "\" is no IPv4 address";
		return {};
	case field_kind::ip6:
		if (inet_pton(AF_INET6, text.c_str(), to) != 1)
			return "\"" + text + "\" is no IPv6 address";
		return {};
	case field_kind::u8: return number_within(0, UINT8_MAX);
	case field_kind::i32: return number_within(INT32_MIN, INT32_MAX);
	case field_kind::u32: return number_within(0, UINT32_MAX);
	default: return "cannot be set";
	}
}

std::string type_name(unsigned type)
{
	return type < std::size(type_names) ? type_names[type] : std::to_string(type);
}

std::optional<unsigned> type_number(const std::string &text)
{
	const auto found = std::find(std::begin(type_names), std::end(type_names), text);
	if (found != std::end(type_names))
		return static_cast<unsigned>(found - std::begin(type_names));
	const auto number = whole_number(text);
	if (!number || *number < 0 || *number > UINT8_MAX)
		return {};
	return static_cast<unsigned>(*number);
}

std::string event_name(int event)
{
	return event > 0 && event < VEK_EVENT_LIMIT ? event_names[event] : std::to_string(event);
}

std::optional<int> event_number_of(const std::string &text)
{
	// The header's names too: with or without VEK_EVENT_, and with the word that says whom it is about.
	std::string name = text;
	std::transform(name.begin(), name.end(), name.begin(),
		       [](unsigned char c) { return c == '_' ? '-' : std::tolower(c); });
	if (name.starts_with("vek-event-"))
		name.erase(0, 10);
	std::string shorter = name;
	for (const std::string_view word : {"user-", "app-"})
		if (const std::size_t at = shorter.find(word); at != std::string::npos)
			shorter.erase(at, word.size());
	for (const std::string &wanted : {name, shorter})
		for (int event = 1; event < VEK_EVENT_LIMIT; event++)
			if (wanted == event_names[event])
				return event;
	const auto number = whole_number(text);
	if (!number || *number <= 0 || *number >= VEK_EVENT_LIMIT)
		return {};
	return static_cast<int>(*number);
}

std::vector<std::string> reported_event_names()
{
	std::vector<std::string> names;
	for (int event = 1; event < VEK_EVENT_LIMIT; event++)
		if (vek_event_is_reported(event))
			names.emplace_back(event_names[event]);
	return names;
}

std::vector<std::string> all_type_names() { return {std::begin(type_names), std::end(type_names)}; }

std::optional<long long> whole_number(std::string_view text)
{
	const bool negative = text.starts_with('-');
	std::string_view digits = text.substr(negative ? 1 : 0);
	const bool hex = digits.starts_with("0x") || digits.starts_with("0X");
	digits.remove_prefix(hex ? 2 : 0);
	long long number = 0;
	const auto [end, error] =
	    std::from_chars(digits.data(), digits.data() + digits.size(), number, hex ? 16 : 10);
	if (digits.starts_with('-') || error != std::errc() || end != digits.data() + digits.size())
		return {};
	return negative ? -number : number;
}

std::string address_text(std::uint32_t ip)
{
	char text[INET_ADDRSTRLEN] = "";
	inet_ntop(AF_INET, &ip, text, sizeof(text));
	return text;
}

std::string address_text(const in6_addr &ip6)
{
	char text[INET6_ADDRSTRLEN] = "";
	inet_ntop(AF_INET6, &ip6, text, sizeof(text));
	return text;
}

std::string address_text(std::uint32_t ip, const in6_addr &ip6)
{
	if (!IN6_IS_ADDR_UNSPECIFIED(&ip6))
		return address_text(ip6);
	return ip != 0 ? address_text(ip) : "";
}

std::optional<address> parse_address(const std::string &text)
{
	address parsed = {};
	if (inet_pton(AF_INET, text.c_str(), &parsed.ip) == 1)
		return parsed;
	parsed.is_ip6 = true;
	if (inet_pton(AF_INET6, text.c_str(), &parsed.ip6) == 1)
		return parsed;
	return {};
}
