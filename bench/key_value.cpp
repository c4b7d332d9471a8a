// key_value.cpp: its protocol spoken as it is, without a library's cost: commands as counted strings, answers
// as lines.
#include "key_value.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <string_view>

namespace {

constexpr char SOCKET[] = "/tmp/bench-key-value.sock";

// One command after the other, counted; between MULTI and EXEC each is answered twice, with one line each.
class transaction_text {
public:
	transaction_text() { append({"MULTI"}); }
	void add(std::initializer_list<std::string_view> words) { append(words); }
	std::string take()
	{
		append({"EXEC"});
		return std::move(text_);
	}

private:
	void append(std::initializer_list<std::string_view> words)
	{
		text_ += '*' + std::to_string(words.size()) + "\r\n";
		for (std::string_view word : words)
			text_.append('$' + std::to_string(word.size()) + "\r\n").append(word).append("\r\n");
	}
	std::string text_;
};

constexpr int COMMANDS = 6;
constexpr int ANSWER_LINES = 1 + COMMANDS + 1 + COMMANDS; // begun, queued, how many, done

} // namespace

std::string key_value_peer::transaction(const vek_event &event)
{
	const std::string ip = std::to_string(event.ip), deadline = std::to_string(event.session_timeout);
	const std::string key = std::string("session:") + event.unique,
			  names = std::string("name:") + event.username;
	const std::string addresses = "ip:" + ip, services = std::string("service:") + event.service;
	const std::string_view copy(reinterpret_cast<const char *>(&event), sizeof(event));

	transaction_text text;
	if (event.event == VEK_EVENT_USER_LOGIN) {
		// Every field that the daemon fills in for such a login.
		text.add({"HSET",
			  key,
			  "service",
			  event.service,
			  "username",
			  event.real_username,
			  "virtual_username",
			  event.username,
			  "unique",
			  event.unique,
			  "ip",
			  ip,
			  "dst_ip",
			  "0",
			  "login_time",
			  "1",
			  "lease_time",
			  "0",
			  "reauth_time",
			  "0",
			  "idle_time",
			  "0",
			  "idle_timeout",
			  "0",
			  "lease_minute",
			  "0",
			  "reauth_minute",
			  "0",
			  "session_timeout",
			  deadline,
			  "access",
			  "0",
			  "visibility",
			  "0",
			  "attribute",
			  "0",
			  "type",
			  "1",
			  "radius_profile_name",
			  "",
			  "auth_time",
			  "1700000000"});
		for (const std::string &set : {names, addresses, services})
			text.add({"SADD", set, event.unique});
		text.add({"ZADD", "deadlines", deadline, event.unique});
	} else {
		text.add({"DEL", key});
		for (const std::string &set : {names, addresses, services})
			text.add({"SREM", set, event.unique});
		text.add({"ZREM", "deadlines", event.unique});
	}
	text.add({"PUBLISH", "sessions", copy});
	return text.take();
}

void key_value_peer::commit(const std::string &transaction) const
{
	if (write(fd_, transaction.data(), transaction.size()) != static_cast<ssize_t>(transaction.size()))
		fail("redis-server does not take a transaction");
	char answer[512];
	for (int lines = 0; lines < ANSWER_LINES;) {
		const ssize_t got = read(fd_, answer, sizeof(answer));
		if (got <= 0)
			fail("redis-server does not answer");
		for (char byte : std::string_view(answer, static_cast<std::size_t>(got))) {
			if (byte == '-')
				fail("redis-server refuses a command");
			lines += byte == '\n';
		}
	}
}

key_value_peer::key_value_peer()
{
	const pid_t pid = fork();
	if (pid < 0)
		fail("fork");
	if (pid == 0) {
		const int nothing = open("/dev/null", O_RDWR);
		dup2(nothing, STDOUT_FILENO);
		dup2(nothing, STDERR_FILENO);
		execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", SOCKET, "--save", "",
		       "--appendonly", "no", static_cast<char *>(nullptr));
		_exit(127);
	}
	process_ = child(pid);
	fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	const sockaddr_un address = [] {
		sockaddr_un named{};
		named.sun_family = AF_UNIX;
		std::string_view(SOCKET).copy(named.sun_path, sizeof(named.sun_path) - 1);
		return named;
	}();
	for (int attempts = 500; attempts > 0; attempts--) {
		if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
			return;
		siginfo_t ended{};
		if (waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
		    ended.si_pid == pid)
			break; // not installed
		usleep(10'000);
	}
	close(fd_);
	fd_ = -1;
}

key_value_peer::~key_value_peer()
{
	if (fd_ >= 0)
		close(fd_);
}
