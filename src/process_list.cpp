// process_list.cpp: see process_list.h. A wrong guess here kills a stranger's process, so what cannot be read
// exactly is no match. Users choose their command lines, which therefore decide nothing but their own.
#include "process_list.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "misc.h"

constinit vek_tool process_lister;

namespace {

constexpr std::size_t READ_LIMIT = 32 << 20; // bytes of a listing

// Reads a line without its end. What does not fit is skipped: the rest of a command line must never be read as a
// line of its own. False at the end, or when so many bytes have been read.
template <std::size_t N> bool read_line(std::FILE *from, char (&line)[N], std::size_t *left)
{
	char rest[4096];
	if (std::fgets(line, N, from) == nullptr)
		return false;
	std::size_t length = std::strlen(line);
	bool whole = length > 0 && line[length - 1] == '\n';
	if (whole)
		line[--length] = '\0';
	*left -= std::min(*left, length + 1);
	while (!whole && *left > 0 && std::fgets(rest, sizeof rest, from) != nullptr) {
		length = std::strlen(rest);
		whole = length > 0 && rest[length - 1] == '\n';
		*left -= std::min(*left, length + 1);
	}
	return *left > 0;
}

void skip_blanks(std::string_view *text)
{
	while (!text->empty() && std::isspace(static_cast<unsigned char>(text->front())))
		text->remove_prefix(1);
}

// Takes a number that fits off the front of a text.
bool take_number(std::string_view *text, int *number)
{
	skip_blanks(text);
	const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
	if (error != std::errc())
		return false;
	text->remove_prefix(static_cast<std::size_t>(end - text->data()));
	return true;
}

struct shell_line {
	listed_shell shell;
	int major;
	std::string_view minor; // as it stands there
};

// What a line "pid major,minor command" says, when it describes a login shell.
std::optional<shell_line> read_shell(std::string_view line)
{
	if (line.find("-qzsh") == line.npos) // as login shells of the command line are called
		return {};
	shell_line read;
	if (!take_number(&line, &read.shell.pid) || read.shell.pid <= 0 || !take_number(&line, &read.major) ||
	    line.empty() || line.front() != ',')
		return {};
	line.remove_prefix(1);
	skip_blanks(&line);
	const auto word_end =
	    std::find_if(line.begin(), line.end(), [](unsigned char c) { return std::isspace(c); });
	read.minor = {line.begin(), word_end};
	if (!take_number(&line, &read.shell.minor))
		return {};
	return read;
}

bool is_on(const shell_line &line, const terminal_number &terminal)
{
	const std::string_view wanted(terminal.minor);
	return line.major == terminal.major && !wanted.empty() &&
	       (terminal.prefix ? line.minor.starts_with(wanted) : line.minor == wanted);
}

struct by_minor {
	static std::string_view minor_of(const shell_search *search) { return search->terminal.minor; }
	static std::string_view minor_of(std::string_view minor) { return minor; }
	template <class A, class B> bool operator()(const A &a, const B &b) const
	{
		return minor_of(a) < minor_of(b);
	}
};

// Empties the file of the listing. False when it cannot be.
bool clear_listing()
{
	const int fd = vek_open_planted(VEK_PSLIST, O_WRONLY | O_TRUNC);
	if (fd >= 0)
		close(fd);
	return fd >= 0 || errno == ENOENT;
}

} // namespace

open_file list_processes()
{
	if (!clear_listing())
		return nullptr;
	const auto list = [] {
		return vek_run_shell("/bin/ps -o 'pid,tty,args' | sed 1d | grep -v '?' > " VEK_PSLIST);
	};
	if (process_lister.run(list) != vek_tool::ENDED) {
		clear_listing(); // there may be no end to what was written until it was killed
		return nullptr;
	}
	const int fd = vek_open_planted(VEK_PSLIST, O_RDONLY);
	if (fd < 0)
		return nullptr;
	open_file listing(fdopen(fd, "r"));
	if (listing == nullptr)
		close(fd);
	return listing;
}

terminal_number console_terminal()
{
	terminal_number terminal{TTY_CONSOLE_1, {}, true};
	if (access("/proc/consoles", F_OK) == 0) {
		char major[TTY_TEXT]{};
		get_tty_by_proc(major, terminal.minor);
		std::string_view text(major);
		if (!take_number(&text, &terminal.major))
			terminal.minor[0] = '\0';
	} else {
		copy_text(terminal.minor, TTY_CONSOLE_2);
	}
	return terminal;
}

void find_shells(std::FILE *list, std::span<shell_search> searches)
{
	// Those of one minor number lie side by side; the console's, which are few, come behind all of them.
	static shell_search *sorted[MAX_SHELL_SEARCHES];
	searches = searches.first(std::min(searches.size(), MAX_SHELL_SEARCHES));
	shell_search **exact_end = sorted, **end = sorted + searches.size(), **prefix = end;
	for (shell_search &search : searches)
		*(search.terminal.prefix ? --prefix : exact_end++) = &search;
	std::sort(sorted, exact_end, by_minor());

	char text[256];
	for (std::size_t left = READ_LIMIT; read_line(list, text, &left);) {
		const auto line = read_shell(text);
		if (!line)
			continue;
		const auto note = [&](shell_search *search) {
			if (!search->shell && is_on(*line, search->terminal))
				search->shell = line->shell;
		};
		const auto [first, last] = std::equal_range(sorted, exact_end, line->minor, by_minor());
		std::for_each(first, last, note);
		std::for_each(exact_end, end, note);
	}
}

void read_consoles(std::FILE *consoles, char *tty1, char *tty2)
{
	char line[64];
	for (std::size_t left = READ_LIMIT; read_line(consoles, line, &left);)
		if (const char *blank = strrchr(line, ' '))
			std::sscanf(blank + 1, "%7[^:]:%7s", tty1, tty2);
}

void get_tty_by_proc(char *tty1, char *tty2)
{
	if (const open_file consoles{std::fopen("/proc/consoles", "re")})
		read_consoles(consoles.get(), tty1, tty2);
}
