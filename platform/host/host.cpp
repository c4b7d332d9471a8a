// host.cpp: the platform's answers: mode, device MAC, rights by user type and of local accounts. They come
// from the configuration file, which is looked at again at most once per tick of the coarse clock, so that an
// edit counts at once and an event costs one stat at most. Without the file this is a standalone device.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "host.h"
#include "qzkit.h"
#include "rrm.h"

namespace {

const char *config_file = HOST_CONFIG_FILE;
host_config settings;
bool settled;           // `settings` hold something
struct stat version;    // of the file they come from; all zero without one
struct timespec looked; // coarse time of the last look at the file

constexpr int max_complaints = 20; // a version of the file; more would only flood the log

void complain(void *arg, int line, const char *what)
{
	int &count = *static_cast<int *>(arg);
	if (++count > max_complaints + 1)
		return;
	char text[512];
	if (count > max_complaints)
		std::snprintf(text, sizeof(text), "%s: more lines that cannot be read", config_file);
	else
		std::snprintf(text, sizeof(text), "%s:%d: %s; the line is skipped", config_file, line, what);
	host_log(LOG_WARNING, text);
}

void complain_file(const char *what)
{
	char text[512];
	std::snprintf(text, sizeof(text), "%s: %s; its former settings stay", config_file, what);
	host_log(LOG_WARNING, text);
}

bool same(const timespec &a, const timespec &b)
{
	return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// As much of a file as there is room for, -1 on failure.
ssize_t read_all(int fd, char *buffer, std::size_t size)
{
	std::size_t have = 0;
	while (have < size) {
		const ssize_t got = read(fd, buffer + have, size - have);
		if (got < 0)
			return -1;
		if (got == 0)
			break;
		have += static_cast<std::size_t>(got);
	}
	return static_cast<ssize_t>(have);
}

void read_settings(int fd)
{
	char text[HOST_MAX_FILE + 1];
	ssize_t length = read_all(fd, text, sizeof(text));
	if (length < 0) {
		complain_file(std::strerror(errno));
		return;
	}
	if (static_cast<std::size_t>(length) > HOST_MAX_FILE) {
		complain_file("longer than 32768 bytes");
		return;
	}
	int complaints = 0;
	vek_platform_parse(text, static_cast<std::size_t>(length), &settings, complain, &complaints);
}

void use_file(const struct stat &seen)
{
	if (!S_ISREG(seen.st_mode)) {
		version = seen;
		complain_file("not a regular file");
		return;
	}
	// Not even what took the file's place meanwhile can block.
	const int fd = open(config_file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
	if (fd < 0) {
		if (errno == EMFILE || errno == ENFILE || errno == ENOENT)
			return; // passes: the next look tries again
		version = seen;
		complain_file(std::strerror(errno));
		return;
	}
	// The version that is read, were it a newer one than was seen.
	if (fstat(fd, &version) == 0 && S_ISREG(version.st_mode))
		read_settings(fd);
	close(fd);
}

void use_built_in()
{
	vek_platform_parse("", 0, &settings, nullptr, nullptr);
	version = {};
	settled = true;
}

const host_config &current()
{
	struct timespec now;
	clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
	if (settled && same(now, looked))
		return settings;
	looked = now;
	if (!settled)
		use_built_in();

	struct stat seen;
	if (stat(config_file, &seen) != 0) {
		if (version.st_ino != 0 && (errno == ENOENT || errno == ENOTDIR))
			use_built_in();
	} else if (!same(seen.st_mtim, version.st_mtim) || seen.st_size != version.st_size ||
	           seen.st_ino != version.st_ino || seen.st_dev != version.st_dev) {
		use_file(seen);
	}
	return settings;
}

const host_account *find_account(const host_config &config, const char *name)
{
	for (int i = 0; i < config.account_count; ++i)
		if (std::strcmp(config.accounts[i].name, name) == 0)
			return &config.accounts[i];
	return nullptr;
}

bool is_user_type(int type)
{
	return type >= ADMIN_TYPE && type <= EXT_GROUP_TYPE;
}

void fill(user_profile_t *profile, const host_values &values)
{
	for (std::size_t i = 0; i < values.size(); ++i)
		if (values[i] != HOST_NOT_GIVEN)
			profile->*host_rights[i].field = values[i];
}

// One attribute of a network interface as text, without its line end. False when there is none.
bool read_attribute(const char *interface, const char *attribute, char (&text)[32])
{
	char path[320];
	std::snprintf(path, sizeof(path), "/sys/class/net/%s/%s", interface, attribute);
	const int fd = open(path, O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return false;
	const ssize_t length = read_all(fd, text, sizeof(text) - 1);
	close(fd);
	if (length < 0)
		return false;
	text[length] = '\0';
	text[std::strcspn(text, "\n")] = '\0';
	return true;
}

// The first interface in the system's order, those of hardware before those that are made up.
void find_interface_mac(char (&mac)[HOST_MAC_SIZE])
{
	DIR *interfaces = opendir("/sys/class/net");
	if (!interfaces)
		return;
	long best = LONG_MAX;
	while (const dirent *entry = readdir(interfaces)) {
		const char *name = entry->d_name;
		char address[32], index[32], path[320];
		if (name[0] == '.' || !read_attribute(name, "address", address) ||
		    !host_is_mac(address, std::strlen(address)) ||
		    std::strcmp(address, "00:00:00:00:00:00") == 0 || !read_attribute(name, "ifindex", index))
			continue;
		std::snprintf(path, sizeof(path), "/sys/class/net/%s/device", name);
		const long rank =
		    std::strtol(index, nullptr, 10) + (access(path, F_OK) == 0 ? 0 : LONG_MAX / 2);
		if (rank < best) {
			best = rank;
			std::memcpy(mac, address, sizeof(mac));
		}
	}
	closedir(interfaces);
}

} // namespace

void vek_platform_use_file(const char *path)
{
	config_file = path;
	settled = false;
}

int qzkit_wlan_get_hybridmode(void)
{
	return current().mode;
}

int get_user_privilege_by_type_id(struct user_profile_t *profile, int type)
{
	if (!is_user_type(type))
		return -1;
	profile->type = type;
	fill(profile, current().types[type]);
	return 0;
}

// An account has the rights of the type it logs in as, except for those that are its own. An unknown account
// leaves the profile as it is, which is without any right.
int get_info_from_local(struct user_profile_t *profile, const char *username, int type)
{
	const host_config &config = current();
	const host_account *account = find_account(config, username);
	if (!account)
		return -1;
	std::memcpy(profile->username, account->name, sizeof(profile->username));
	profile->type = type;
	if (is_user_type(type))
		fill(profile, config.types[type]);
	fill(profile, account->values);
	return 0;
}

int rrm_get_common_mac(char *buffer, int size)
{
	char mac[HOST_MAC_SIZE];
	std::memcpy(mac, current().mac, sizeof(mac));
	if (mac[0] == '\0')
		find_interface_mac(mac);
	if (size > 0)
		std::snprintf(buffer, static_cast<std::size_t>(size), "%s", mac);
	return mac[0] == '\0' ? -1 : 0;
}
