// lists.cpp: the lists that say which process is ended. The target pslist is the process listing, whose
// command lines are whatever users made them, behind a byte that chooses the terminal that is looked for; the
// target consoles (with CONSOLES) is the kernel's list of consoles.
#include <cstring>
#include <memory>
#include <sstream>

#include "target.h"
#include "terminator.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size < 2)
		return 0;
#ifdef CONSOLES
	std::FILE *list = fmemopen(const_cast<std::uint8_t *>(data), size, "r");
	// Allocated, so that a byte too many is seen.
	const auto major = std::make_unique<char[]>(TTY_TEXT), minor = std::make_unique<char[]>(TTY_TEXT);
	read_consoles(list, major.get(), minor.get());
	for (const char *number : {major.get(), minor.get()})
		require(strnlen(number, TTY_TEXT) < TTY_TEXT, "a number without an end");
#else
	constexpr terminal_number ttys[] = {
	    {136, "0", false}, {136, "12", false}, {4, "64", true}, {136, "", true}};
	const terminal_number &terminal = ttys[*data % std::size(ttys)];
	const std::string text(data + 1, data + size);
	std::FILE *list = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
	if (const auto shell = find_shell(list, terminal)) {
		bool listed = false;
		std::istringstream lines(text);
		for (std::string line; std::getline(lines, line);)
			listed |= std::atoi(line.c_str()) == shell->pid;
		require(listed && shell->pid > 0 && terminal.minor[0] != '\0', "a shell of no line");
	}
#endif
	std::fclose(list);
	return 0;
}
