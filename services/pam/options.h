// options.h: the words that may follow pam_vekd.so in a PAM configuration; pam_vekd(8) says what they mean.
#ifndef VEK_PAM_OPTIONS_H
#define VEK_PAM_OPTIONS_H

#include <security/pam_modules.h>

#include <cstddef>

constexpr int MOST_MAPPINGS = 16;

struct text_span {
	const char *begin;
	std::size_t length;
};

struct pam_options {
	enum { NO_STAGE, PREAUTH, AUTHFAIL } stage;
	text_span map[MOST_MAPPINGS]; // each NAME:SERVICE
	int mappings;
	const char *only; // services with commas between them; null: all
	const char *admin_group;
	const char *limited_group;
	const char *keeper;
	long lease;   // minutes
	long idle;    // seconds
	long session; // seconds
	long timeout_ms;
	long attempts; // 0: what the table says
	long period;
	bool deny;
	bool resolve;
};

// A word that is none is logged and has no effect.
pam_options read_options(pam_handle_t *pamh, int argc, const char **argv);

// Among the words of a list with commas between them.
bool is_listed(const char *list, const char *word);

// What the options say a PAM service is, or null.
bool mapped_service(const pam_options &options, const char *pam_service, char *service, std::size_t size);

#endif
