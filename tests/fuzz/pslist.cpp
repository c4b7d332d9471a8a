// pslist.cpp: the process listing, whose command lines are whatever users made them. The first byte chooses the
// terminal that is looked for.
#include "target.h"
#include "terminator.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	static constexpr terminal_number terminals[] = {
	    {TTY_SSH_TELNET_1, "0", false}, {TTY_SSH_TELNET_1, "12", false}, {TTY_CONSOLE_1, "64", true}, {136, "", true}};
	if (size < 2)
		return 0;
	std::FILE *list = fmemopen(const_cast<std::uint8_t *>(data + 1), size - 1, "r");
	const terminal_number &terminal = terminals[data[0] % std::size(terminals)];
	if (const auto shell = find_shell(list, terminal))
		if (shell->pid <= 0 || terminal.minor[0] == '\0')
			broken("a shell that is none");
	std::fclose(list);
	return 0;
}
