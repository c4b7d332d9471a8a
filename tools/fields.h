// fields.h: the fields of a record by name: read as text for people or as JSON, set from an option's text,
// compared. The tables themselves are the daemon's own (vek_fields.h).
#ifndef VEKCTL_FIELDS_H
#define VEKCTL_FIELDS_H

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "output.h"
#include "vek_fields.h"

const vek_field *find_field(std::span<const vek_field> fields, std::string_view name);

// A text field, whether or not it is terminated; a number field. `field` is of that kind.
std::string_view text_of(const vek_field &field, const void *record);
std::uint64_t number_of(const vek_field &field, const void *record); // a negative one as its 64-bit pattern

// The value for people, escaped: "" for nothing, "ssh", "10.0.0.7", "admin", and a time as `when` has it.
std::string display(const vek_field &field, const void *record, const times &when);
json field_json(const vek_field &field, const void *record);
void add_json(json &object, const vek_field &field, const void *record); // a type with its name
json record_json(std::span<const vek_field> fields, const void *record);

// Below, at or above 0 as the first record's value is less than, equal to or greater than the second's.
int compare(const vek_field &field, const void *one, const void *other);

// What keeps `text` from being the field's value, or nothing: then it has been set.
std::optional<std::string> set_field(const vek_field &field, void *record, const std::string &text);

// ---- words for numbers ----

std::string type_name(unsigned type); // "admin"; the number where there is no word
std::optional<unsigned> type_number(const std::string &text);
std::string event_name(int event);                           // "login"
std::optional<int> event_number_of(const std::string &text); // of a number too, and of the header's name
std::vector<std::string> reported_event_names();
std::vector<std::string> all_type_names();

// Decimal or 0x; nothing else around it.
std::optional<long long> whole_number(std::string_view text);

std::string address_text(std::uint32_t ip);
std::string address_text(const in6_addr &ip6);
// Whichever of the two is there; "" for none.
std::string address_text(std::uint32_t ip, const in6_addr &ip6);

// An IPv4 or an IPv6 address as given on the command line.
struct address {
	bool is_ip6;
	std::uint32_t ip;
	in6_addr ip6;
};
std::optional<address> parse_address(const std::string &text);

#endif
