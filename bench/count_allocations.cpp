// count_allocations.cpp: loaded in front of a program's C library, counts what the program allocates into the
// file that VEK_BENCH_ALLOCATIONS names, where road reads it while the program runs.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
}

namespace {

std::atomic<unsigned long> *counter;

void count()
{
	if (counter != nullptr)
		counter->fetch_add(1, std::memory_order_relaxed);
}

__attribute__((constructor)) void attach()
{
	const char *path = std::getenv("VEK_BENCH_ALLOCATIONS");
	const int fd = path != nullptr ? open(path, O_RDWR | O_CLOEXEC) : -1;
	if (fd < 0)
		return;
	void *shared = mmap(nullptr, sizeof(*counter), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
	close(fd);
	if (shared != MAP_FAILED)
		counter = static_cast<std::atomic<unsigned long> *>(shared);
}

} // namespace

extern "C" {

void *malloc(std::size_t size) noexcept
{
	count();
	return __libc_malloc(size);
}

void *calloc(std::size_t count_of, std::size_t size) noexcept
{
	count();
	return __libc_calloc(count_of, size);
}

void *realloc(void *block, std::size_t size) noexcept
{
	count();
	return __libc_realloc(block, size);
}
}
