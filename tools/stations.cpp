// stations.cpp: the portal stations, from the dump that the daemon writes when it is asked to.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "vekctl.h"

namespace {

constexpr int look_again_ms = 10;
constexpr std::size_t dump_limit = 1 << 20; // far beyond a full tree's

class file {
public:
	explicit file(const char *path) : fd_(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)) {}
	~file()
	{
		if (fd_ >= 0)
			close(fd_);
	}
	file(const file &) = delete;
	file &operator=(const file &) = delete;

	bool is_open() const { return fd_ >= 0; }

	bool is_same(const file &other) const
	{
		struct stat mine = {}, its = {};
		return is_open() && other.is_open() && fstat(fd_, &mine) == 0 &&
		       fstat(other.fd_, &its) == 0 && mine.st_dev == its.st_dev && mine.st_ino == its.st_ino;
	}

	std::string text() const
	{
		std::string all;
		char part[4096];
		for (ssize_t got; all.size() < dump_limit && (got = read(fd_, part, sizeof(part))) > 0;)
			all.append(part, static_cast<std::size_t>(got));
		return all;
	}

private:
	int fd_;
};

// The daemon removes the old dump before it writes. The old one stays open here, so that the new one cannot
// get its number and be taken for it.
std::string new_dump(const settings &set)
{
	const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(set.timeout_ms());
	const file old(VEK_RBTREE_DUMP);
	signal_daemon(daemon_pid(), SIGUSR1);
	for (;;) {
		const file dump(VEK_RBTREE_DUMP);
		if (dump.is_open() && !dump.is_same(old)) {
			std::string text = dump.text();
			if (text.ends_with(": print end ===\n"))
				return text;
		}
		if (std::chrono::steady_clock::now() >= end)
			throw failure{status_timed_out, "vekd wrote no " VEK_RBTREE_DUMP " in time"};
		poll(nullptr, 0, look_again_ms);
	}
}

struct station {
	std::string_view username, sta_mac, auth_time, place, parent;
};

// Takes the part after the last `mark` off the text; the mark goes with it.
std::string_view take_last(std::string_view &text, std::string_view mark)
{
	const std::size_t at = text.rfind(mark);
	if (at == std::string_view::npos)
		return {};
	const std::string_view last = text.substr(at + mark.size());
	text = text.substr(0, at);
	return last;
}

// "alice-02:00:00:00:00:07(Black) is root" or "bob-MAC-1700000000-0x5581 is MAC's left child", read from the
// end, for a name may hold anything. The address is empty where the login brought none. False: neither.
bool parse(std::string_view line, station &into)
{
	constexpr std::string_view root = "(Black) is root";
	if (line.ends_with(root)) {
		line.remove_suffix(root.size());
		into = {{}, take_last(line, "-"), {}, "root", {}};
		into.username = line;
		return into.sta_mac.data() != nullptr;
	}
	into = {};
	into.place = take_last(line, "'s ");
	into.parent = take_last(line, " is ");
	const std::string_view node = take_last(line, "-");
	into.auth_time = take_last(line, "-");
	into.sta_mac = take_last(line, "-");
	into.username = line;
	return into.place.ends_with(" child") && !node.empty() && into.sta_mac.data() != nullptr;
}

void stations(const settings &set)
{
	const std::string dump = new_dump(set);
	json result = json_result();
	json &list = result["stations"] = json::array();
	table lines({{"USERNAME"},
		     {"STA_MAC", cutting::exact},
		     {"AUTH_TIME", cutting::exact},
		     {"PLACE", cutting::exact},
		     {"PARENT", cutting::exact}});
	bool understood = true;
	for (std::string_view rest = dump; !rest.empty();) {
		std::string_view line = rest.substr(0, rest.find('\n'));
		rest.remove_prefix(std::min(rest.size(), line.size() + 1));
		line.remove_prefix(line.find(']') + 1); // "[time]"; nothing where there is none
		if (line.starts_with("=== ") && line.ends_with(" ==="))
			continue;
		station found;
		if (!parse(line, found)) {
			understood = false;
			continue;
		}
		lines.row({escaped(found.username), escaped(found.sta_mac), escaped(found.auth_time),
			   escaped(found.place), escaped(found.parent)});
		list.push_back({{"username", found.username},
				{"sta_mac", found.sta_mac},
				{"auth_time", found.auth_time},
				{"place", found.place},
				{"parent", found.parent}});
	}
	if (set.json)
		put_json(result);
	else
		lines.print(set);
	if (!understood)
		throw failure{status_unexpected, "not every line of " VEK_RBTREE_DUMP " is a station"};
}

} // namespace

void add_stations_command(CLI::App &app, settings &set)
{
	add_command(app, set, "stations", "The portal stations, oldest ancestors first",
		    "vekctl stations --json", [&set] { stations(set); });
}
