// lists.cpp: the lists that say which process is ended: the input is the process listing, whose command lines
// are whatever users made them, and the kernel's list of consoles.
#include <cstring>
#include <memory>
#include <sstream>

#include "process_list.h"
#include "target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size == 0)
		return 0;
	std::string text(data, data + size);
	std::FILE *list = fmemopen(text.data(), size, "r");
	shell_search searches[] = {
	    {{136, "0", false}, {}}, {{136, "12", false}, {}}, {{4, "64", true}, {}}, {{136, "", true}, {}}};
	find_shells(list, searches);
	for (const auto &[terminal, shell] : searches) {
		bool listed = false;
		std::istringstream lines(text);
		for (std::string line; shell && std::getline(lines, line);)
			listed |= std::atoi(line.c_str()) == shell->pid;
		require(!shell || (listed && shell->pid > 0 && *terminal.minor), "a shell of no line");
	}
	// Allocated, so that a byte too many is seen.
	const auto major = std::make_unique<char[]>(TTY_TEXT), minor = std::make_unique<char[]>(TTY_TEXT);
	std::rewind(list);
	read_consoles(list, major.get(), minor.get());
	for (const char *number : {major.get(), minor.get()})
		require(strnlen(number, TTY_TEXT) < TTY_TEXT, "a number without an end");
	std::fclose(list);
	return 0;
}
