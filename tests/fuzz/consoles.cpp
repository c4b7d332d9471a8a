// consoles.cpp: the kernel's list of consoles.
#include <cstring>
#include <memory>

#include "target.h"
#include "terminator.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size == 0)
		return 0;
	std::FILE *list = fmemopen(const_cast<std::uint8_t *>(data), size, "r");
	// Allocated, so that a byte too many is seen.
	const auto major = std::make_unique<char[]>(TTY_TEXT), minor = std::make_unique<char[]>(TTY_TEXT);
	read_consoles(list, major.get(), minor.get());
	if (strnlen(major.get(), TTY_TEXT) == TTY_TEXT || strnlen(minor.get(), TTY_TEXT) == TTY_TEXT)
		broken("a number without an end");
	std::fclose(list);
	return 0;
}
