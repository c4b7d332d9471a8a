// model_main.cpp: `vek_model [--seed N] [--steps N]`: one random run. The seed is printed and replays it.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "model.h"

int main(int argc, char **argv)
{
	model_run run;
	for (int i = 1; i + 1 < argc; i += 2) {
		unsigned long *option = !std::strcmp(argv[i], "--seed")    ? &run.seed
					: !std::strcmp(argv[i], "--steps") ? &run.steps
									   : nullptr;
		char *end;
		if (option == nullptr || (*option = std::strtoul(argv[i + 1], &end, 10), *end != '\0'))
			argc = 0;
	}
	if (argc % 2 == 0) {
		std::fputs("usage: vek_model [--seed N] [--steps N]\n", stderr);
		return 2;
	}
	const std::string difference = run.run();
	std::printf("vek_model --seed %lu --steps %lu: %s\n%s", run.seed, run.steps,
		    difference.empty() ? "agrees" : difference.c_str(), run.summary.c_str());
	if (difference.empty() && !run.complete && run.steps >= 20000) {
		std::puts("the run missed something that it should meet");
		return 1;
	}
	return difference.empty() ? 0 : 1;
}
