// heap.cpp: preloaded into the daemon of a long run: on SIGUSR2, which it does not use itself, the bytes of
// its heap that are in use go to a file. Ask only while the daemon waits: malloc may not be interrupted.
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

void write_heap(int)
{
	char text[32];
	const int length = std::snprintf(text, sizeof(text), "%zu\n", mallinfo2().uordblks);
	const int fd = open("/tmp/heap", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
	[[maybe_unused]] const ssize_t written = write(fd, text, static_cast<std::size_t>(length));
	close(fd);
}

[[gnu::constructor]] void listen() { std::signal(SIGUSR2, write_heap); }

} // namespace
