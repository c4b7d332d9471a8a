// replay.cpp: runs a target on files, and on all files of directories, without a fuzzer: the corpora as a test, and
// a finding under a debugger.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "target.h"

int main(int argc, char **argv)
{
	std::set<std::filesystem::path> files;
	for (const std::filesystem::path path : std::span(argv + 1, static_cast<std::size_t>(argc - 1)))
		if (is_directory(path))
			for (const auto &entry : std::filesystem::directory_iterator(path))
				files.insert(entry.path());
		else
			files.insert(path);
	for (const auto &path : files) {
		std::ifstream file(path, std::ios::binary);
		const std::string text{std::istreambuf_iterator<char>(file), {}};
		std::cerr << path.filename().string() << std::endl; // in case it is the last one
		LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(text.data()), text.size());
	}
	return files.empty();
}
