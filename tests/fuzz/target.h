// target.h: what every fuzz target has: the function that the fuzzer calls with an input, and the word for a
// rule that has to hold.
#ifndef TARGET_H
#define TARGET_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

using bytes = std::span<const std::uint8_t>;

inline void require(bool holds, const char *broken)
{
	if (holds)
		return;
	std::fprintf(stderr, "broken: %s\n", broken);
	std::abort();
}

#endif
