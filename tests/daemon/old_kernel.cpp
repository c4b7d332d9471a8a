// old_kernel.cpp: preloaded into the daemon, it takes one option of sockets away, as kernels before 6.16 lack it:
// the one that refuses descriptors which programs pass along.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

extern "C" int setsockopt(int fd, int level, int option, const void *value, socklen_t size) noexcept
{
	constexpr int PASSRIGHTS = 83;
	if (level == SOL_SOCKET && option == PASSRIGHTS) {
		errno = ENOPROTOOPT;
		return -1;
	}
	return static_cast<int>(syscall(SYS_setsockopt, fd, level, option, value, size));
}
