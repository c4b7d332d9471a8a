// process_list.h: the login shells of the device, found in a process listing by their terminals.
#ifndef PROCESS_LIST_H
#define PROCESS_LIST_H

#include <cstdio>
#include <memory>
#include <optional>
#include <span>

#include "child.h"
#include "terminator.h"

struct file_closer {
	void operator()(std::FILE *file) const { std::fclose(file); }
};
using open_file = std::unique_ptr<std::FILE, file_closer>;

extern vek_tool process_lister;

// A fresh listing of all processes with a terminal. Null without one: an older list is none.
open_file list_processes();

// A terminal by its device numbers, the minor one as text. An empty text is no terminal.
struct terminal_number {
	int major;
	char minor[TTY_TEXT];
	bool prefix; // any minor number that begins with the text will do
};

// The serial console, from the kernel's list of consoles.
terminal_number console_terminal();

struct listed_shell {
	int pid; // above zero
	int minor;
};

struct shell_search {
	terminal_number terminal;
	std::optional<listed_shell> shell;
};

// The first login shell on each of these terminals, at most MAX_SHELL_SEARCHES. The listing is read once, however
// many are searched, and no more of it than a limit that no real one reaches.
constexpr std::size_t MAX_SHELL_SEARCHES = VEK_MAX_USERS;
void find_shells(std::FILE *list, std::span<shell_search> searches);

// get_tty_by_proc on an open file.
void read_consoles(std::FILE *consoles, char *tty1, char *tty2);

#endif
