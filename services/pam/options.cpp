// options.cpp: reading the module's words.
#include "options.h"

#include <security/pam_ext.h>
#include <syslog.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

const char *value_of(const char *word, const char *name)
{
	const std::size_t length = std::strlen(name);
	return std::strncmp(word, name, length) == 0 && word[length] == '=' ? word + length + 1 : nullptr;
}

bool read_number(const char *text, long most, long *number)
{
	char *end;
	errno = 0;
	const long read = std::strtol(text, &end, 10);
	if (end == text || *end != '\0' || errno != 0 || read < 0 || read > most)
		return false;
	*number = read;
	return true;
}

struct number_option {
	const char *name;
	long pam_options::*field;
	long most;
};
constexpr number_option numbers[] = {
    {"lease", &pam_options::lease, INT_MAX / 60},   {"idle", &pam_options::idle, INT_MAX},
    {"session", &pam_options::session, INT_MAX},    {"timeout", &pam_options::timeout_ms, 60000},
    {"attempts", &pam_options::attempts, CHAR_MAX}, {"period", &pam_options::period, INT_MAX},
};

struct text_option {
	const char *name;
	const char *pam_options::*field;
};
constexpr text_option texts[] = {
    {"only", &pam_options::only},
    {"admin", &pam_options::admin_group},
    {"limited", &pam_options::limited_group},
    {"keeper", &pam_options::keeper},
};

bool read_word(const char *word, pam_options *options)
{
	for (const number_option &option : numbers)
		if (const char *value = value_of(word, option.name))
			return read_number(value, option.most, &(options->*option.field));
	for (const text_option &option : texts)
		if (const char *value = value_of(word, option.name)) {
			options->*option.field = value;
			return *value != '\0';
		}
	if (const char *value = value_of(word, "map")) {
		const char *colon = std::strchr(value, ':');
		if (colon == nullptr || colon == value || colon[1] == '\0' ||
		    options->mappings == MOST_MAPPINGS)
			return false;
		options->map[options->mappings++] = {value, static_cast<std::size_t>(colon - value)};
		return true;
	}
	if (const char *value = value_of(word, "on_error")) {
		options->deny = std::strcmp(value, "deny") == 0;
		return options->deny || std::strcmp(value, "ignore") == 0;
	}
	if (std::strcmp(word, "resolve") == 0)
		return options->resolve = true;
	if (std::strcmp(word, "preauth") == 0)
		return options->stage = pam_options::PREAUTH, true;
	if (std::strcmp(word, "authfail") == 0)
		return options->stage = pam_options::AUTHFAIL, true;
	return false;
}

} // namespace

pam_options read_options(pam_handle_t *pamh, int argc, const char **argv)
{
	pam_options options = {};
	options.timeout_ms = 1000;
	options.keeper = VEK_SSH_KEEPER;
	for (int i = 0; i < argc; i++)
		if (!read_word(argv[i], &options))
			pam_syslog(pamh, LOG_ERR, "not an option, or not a value of it: %s", argv[i]);
	return options;
}

bool is_listed(const char *list, const char *word)
{
	const std::size_t length = std::strlen(word);
	for (;; list++) {
		const std::size_t here = std::strcspn(list, ",");
		if (here == length && std::strncmp(list, word, length) == 0)
			return true;
		list += here;
		if (*list == '\0')
			return false;
	}
}

bool mapped_service(const pam_options &options, const char *pam_service, char *service, std::size_t size)
{
	for (int i = 0; i < options.mappings; i++) {
		const text_span &entry = options.map[i];
		if (std::strlen(pam_service) != entry.length ||
		    std::strncmp(pam_service, entry.begin, entry.length) != 0)
			continue;
		const char *name = entry.begin + entry.length + 1;
		const std::size_t length = strnlen(name, size - 1);
		std::memcpy(service, name, length);
		service[length] = '\0';
		return true;
	}
	return false;
}
