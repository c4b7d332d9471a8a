// faults.h: calls that fail on demand. The executable is linked so that the daemon's calls of the functions
// listed in faults.cpp come here first; the n-th of a kind, counted from when it was asked for, fails.
#ifndef FAULTS_H
#define FAULTS_H

#include <functional>
#include <string>
#include <vector>

struct fault {
	const char *call;          // a part of the name: "alloc" is malloc and calloc
	int error;                 // the errno it fails with
	bool lasting = false;      // all later ones fail too
	void (*first)() = nullptr; // called before it fails
};

// From now on the n-th such call fails (from 1).
void inject(const fault &fault, int n);

// No more failures. Whether there was one.
bool heal();

// Runs `act` with the first, the second, ... such call failing, each time between `prepare` and `check`,
// until it makes no more such calls. At least one must have failed, or nothing was tested; no descriptor may
// be left open.
void exhaust(const fault &fault, const std::function<void()> &prepare, const std::function<void()> &act,
	     const std::function<void(bool failed)> &check);
#endif
