// replay.cpp: runs a target on files, without a fuzzer: the corpora as a test, and a finding under a
// debugger.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "target.h"

int main(int argc, char **argv)
{
	for (const char *path : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
		std::cerr << path << std::endl; // in case it is the last one
		std::ifstream file(path, std::ios::binary);
		require(file.is_open(), "no such file");
		const std::string text{std::istreambuf_iterator<char>(file), {}};
		LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
	}
	return argc < 2;
}
