// vek_fields.h: the fields of the two records as data: name, place and kind. The daemon cuts received text
// with it; vekctl names its options, columns and JSON members after it. One row a field, in record order.
#ifndef VEK_FIELDS_H
#define VEK_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "vek.h"

enum class field_kind : std::uint8_t { text, u8, i32, u32, u64, ip4, ip6 };

struct vek_field {
	const char *name;
	std::uint16_t offset;
	std::uint16_t size;
	field_kind kind;
	const char *unit; // "" where the number has none
};

#define VEK_FIELD_UNIT(record, field, kind, unit)                                                            \
	vek_field { #field, offsetof(record, field), sizeof(record::field), field_kind::kind, unit }
#define VEK_FIELD(record, field, kind) VEK_FIELD_UNIT(record, field, kind, "")

inline constexpr vek_field vek_event_fields[] = {
    VEK_FIELD(vek_event, event, i32),
    VEK_FIELD(vek_event, count, i32),
    VEK_FIELD(vek_event, sub_event, i32),
    VEK_FIELD(vek_event, service, text),
    VEK_FIELD(vek_event, username, text),
    VEK_FIELD(vek_event, real_username, text),
    VEK_FIELD(vek_event, define_name, text),
    VEK_FIELD(vek_event, unique, text),
    VEK_FIELD(vek_event, ip, ip4),
    VEK_FIELD(vek_event, dst_ip, ip4),
    VEK_FIELD(vek_event, tunnel_ip, ip4),
    VEK_FIELD(vek_event, attribute, u8),
    VEK_FIELD(vek_event, type, u8),
    VEK_FIELD_UNIT(vek_event, update, i32, "minutes"),
    VEK_FIELD(vek_event, ip6, ip6),
    VEK_FIELD(vek_event, dst_ip6, ip6),
    VEK_FIELD(vek_event, tunnel_ip6, ip6),
    VEK_FIELD(vek_event, event_flag, u32),
    VEK_FIELD_UNIT(vek_event, default_lease_time, i32, "minutes"),
    VEK_FIELD_UNIT(vek_event, default_reauth_time, i32, "minutes"),
    VEK_FIELD(vek_event, match_flag, u32),
    VEK_FIELD_UNIT(vek_event, idle_timeout, u32, "seconds"),
    VEK_FIELD(vek_event, idle_timeout_form_acct_flag, i32),
    VEK_FIELD_UNIT(vek_event, session_timeout, u32, "seconds"),
    VEK_FIELD(vek_event, radius_profile_name, text),
    VEK_FIELD(vek_event, old_radius_profile_name, text),
    VEK_FIELD(vek_event, accounting_status, i32),
    VEK_FIELD(vek_event, notify_cc, i32),
    VEK_FIELD(vek_event, method, text),
    VEK_FIELD(vek_event, locale, text),
    VEK_FIELD(vek_event, gender, text),
    VEK_FIELD(vek_event, age, text),
    VEK_FIELD(vek_event, auth_time, text),
    VEK_FIELD(vek_event, ssid_name, text),
    VEK_FIELD(vek_event, ssid_profile_name, text),
    VEK_FIELD(vek_event, ssid_vap_iface, text),
    VEK_FIELD(vek_event, sta_mac, text),
    VEK_FIELD(vek_event, usr_from, i32),
    VEK_FIELD(vek_event, ga_acct_status, i32),
    VEK_FIELD(vek_event, ga_binding_token, text),
    VEK_FIELD(vek_event, ssh_tty, text),
};

inline constexpr vek_field user_info_fields[] = {
    VEK_FIELD(user_info, service, text),
    VEK_FIELD(user_info, username, text),
    VEK_FIELD(user_info, virtual_username, text),
    VEK_FIELD(user_info, unique, text),
    VEK_FIELD(user_info, ip6, ip6),
    VEK_FIELD(user_info, dst_ip6, ip6),
    VEK_FIELD(user_info, tunnel_ip6, ip6),
    VEK_FIELD(user_info, ip, ip4),
    VEK_FIELD(user_info, dst_ip, ip4),
    VEK_FIELD(user_info, tunnel_ip, ip4),
    VEK_FIELD_UNIT(user_info, login_time, u64, "uptime seconds"),
    VEK_FIELD_UNIT(user_info, lease_time, u64, "uptime seconds"),
    VEK_FIELD_UNIT(user_info, reauth_time, u64, "uptime seconds"),
    VEK_FIELD_UNIT(user_info, idle_time, u64, "uptime seconds"),
    VEK_FIELD(user_info, idle_timeout_form_acct_flag, i32),
    VEK_FIELD_UNIT(user_info, idle_timeout, u32, "seconds"),
    VEK_FIELD_UNIT(user_info, lease_minute, u32, "minutes"),
    VEK_FIELD_UNIT(user_info, reauth_minute, u32, "minutes"),
    VEK_FIELD(user_info, access, u32),
    VEK_FIELD(user_info, visibility, u32),
    VEK_FIELD(user_info, attribute, u8),
    VEK_FIELD(user_info, type, u8),
    VEK_FIELD(user_info, usr_flags, u32),
    VEK_FIELD_UNIT(user_info, session_timeout, u64, "uptime seconds"),
    VEK_FIELD(user_info, radius_profile_name, text),
    VEK_FIELD(user_info, accounting_status, i32),
    VEK_FIELD(user_info, method, text),
    VEK_FIELD(user_info, locale, text),
    VEK_FIELD(user_info, gender, text),
    VEK_FIELD(user_info, age, text),
    VEK_FIELD(user_info, auth_time, text),
    VEK_FIELD(user_info, ssid_name, text),
    VEK_FIELD(user_info, ssid_profile_name, text),
    VEK_FIELD(user_info, ssid_vap_iface, text),
    VEK_FIELD(user_info, sta_mac, text),
    VEK_FIELD(user_info, usr_from, i32),
    VEK_FIELD(user_info, ga_acct_status, i32),
    VEK_FIELD(user_info, ga_binding_token, text),
    VEK_FIELD(user_info, ssh_tty, text),
};

template <const auto &fields, std::size_t i> void cut_field(void *record)
{
	if constexpr (fields[i].kind == field_kind::text)
		static_cast<char *>(record)[fields[i].offset + fields[i].size - 1] = '\0';
}

template <const auto &fields, std::size_t... i> void cut_fields(void *record, std::index_sequence<i...>)
{
	(cut_field<fields, i>(record), ...);
}

// Ends every text field of a record at its field, whoever filled it. `record` is at least as long as the
// last field. The table is known when this is compiled, so that an event pays for the stores alone.
template <const auto &fields> void cut_text(void *record)
{
	cut_fields<fields>(record, std::make_index_sequence<std::size(fields)>());
}

#endif
