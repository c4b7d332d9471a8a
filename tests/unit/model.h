// model.h: random events against the daemon's core and, beside it, a plain second telling of its rules:
// sessions in an array, every search a loop over all of them, no index. After each step everything that can
// be seen of the two is compared.
#ifndef MODEL_H
#define MODEL_H

#include <string>

struct model_run {
	unsigned long seed = 1;
	unsigned long steps = 20000;

	// Empty, or the step and what differed there. Starts and stops a core of its own.
	std::string run();

	std::string summary;   // what the run met, for whoever wants to know that it met it
	bool complete = false; // ... and whether that was every kind of thing that it should meet
};

#endif
