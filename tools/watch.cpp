// watch.cpp: following logins and logouts as they happen. A lost connection is announced and taken up again;
// what may have been missed meanwhile is marked in the output.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <unistd.h>

#include "vekctl.h"

namespace {

using clock_type = std::chrono::steady_clock;

struct watch_options {
	selection wanted;
	double seconds = 0;
	int count = 0;
};

constexpr char red[] = "\033[31m";

std::string rfc3339_now() { return rfc3339(std::time(nullptr)); }

class printer {
public:
	explicit printer(const settings &set)
	    : set_(set), coloured_(isatty(STDOUT_FILENO) && !std::getenv("NO_COLOR"))
	{
	}

	void event(const vek_event &event)
	{
		if (set_.json)
			put_json(event_json(event, rfc3339_now()));
		else
			line(event_text(event), event_colour(event));
	}

	void gap(const std::string &since)
	{
		if (!set_.json)
			return line("-- events since " + since.substr(11, 8) + " may be missing --", red);
		json line = json_result();
		line["time"] = rfc3339_now();
		line["gap"] = true;
		line["since"] = since;
		put_json(line);
	}

private:
	static std::string today() { return date_text(std::time(nullptr), "%Y-%m-%d"); }

	void line(const std::string &text, const std::string &colour)
	{
		if (!set_.absolute && day_ != today())
			put_line("-- " + (day_ = today()) + " --");
		const std::string time =
		    date_text(std::time(nullptr), set_.absolute ? "%Y-%m-%d %H:%M:%S " : "%H:%M:%S ");
		const std::string whole = cut(time + text, terminal_width(set_));
		put_line(coloured_ && !colour.empty() ? colour + whole + "\033[0m" : whole);
	}

	const settings &set_;
	bool coloured_;
	std::string day_ = today(); // which a reader knows
};

// Whoever asks the command to end need not wait for the daemon, nor for a reader of its output. A shell's
// background job ignores SIGINT and reads no terminal; a command in a shell that was such a job itself reads
// one and obeys.
void end_when_asked()
{
	for (const int number : {SIGINT, SIGTERM})
		if (std::signal(number, [](int) { _exit(status_ok); }) == SIG_IGN && !isatty(STDIN_FILENO))
			std::signal(number, SIG_IGN);
}

class watcher {
public:
	watcher(const settings &set, const watch_options &options) : set_(set), options_(options), out_(set)
	{
		if (options.seconds > 0)
			end_ = clock_type::now() +
			       std::chrono::milliseconds(static_cast<long long>(options.seconds * 1000));
	}

	void run()
	{
		subscribe(set_.timeout_ms());
		outcome end = passed;
		for (int seen = 0; end == passed || end == ready;) {
			end = vek_client_pending(client_.get()) > 0 ? ready
								    : wait(vek_client_fd(client_.get()), -1);
			if (end != ready)
				break;
			vek_event event;
			if (vek_client_next(client_.get(), &event) > 0) {
				if (!options_.wanted.matches(session_of(event)))
					continue;
				out_.event(event);
				if (++seen == options_.count)
					return;
			} else if (errno == EPROTO) {
				throw client_failure("cannot watch");
			} else if (errno != ETIMEDOUT) {
				end = reconnect();
			}
		}
		if (end == over && options_.count > 0)
			throw failure{status_timed_out,
				      "fewer than " + std::to_string(options_.count) + " events came"};
	}

private:
	enum outcome { ready, passed, over };

	// Until there is something to read, `at_most_ms` have passed, or the watch is over.
	outcome wait(int fd, int at_most_ms)
	{
		for (;;) {
			int left = at_most_ms;
			if (options_.seconds > 0) {
				const auto rest =
				    std::chrono::ceil<std::chrono::milliseconds>(end_ - clock_type::now())
					.count();
				if (rest <= 0)
					return over;
				left = static_cast<int>(left < 0 ? std::min<long long>(rest, 3600000)
								 : std::min<long long>(left, rest));
			}
			// Nothing is asked of standard output: a reader that went away shows as an error.
			struct pollfd watched[] = {{fd, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
			const int found = poll(watched, std::size(watched), left);
			if (found < 0 && errno != EINTR)
				throw failure{status_refused, "cannot wait for events"};
			if (found > 0 && (watched[1].revents & (POLLERR | POLLNVAL)))
				throw failure{status_refused, ""};
			if (found > 0 && watched[0].revents)
				return ready;
			if (found == 0 && at_most_ms >= 0 && left == at_most_ms)
				return passed;
		}
	}

	void subscribe(int timeout_ms)
	{
		settings within = set_;
		within.timeout = timeout_ms / 1000.0;
		client_ = connect_request(within);
		checked(vek_client_subscribe(client_.get()), "cannot subscribe");
	}

	// Anything but `passed`: the command is to end.
	outcome reconnect()
	{
		const std::string since = rfc3339_now();
		std::fprintf(stderr, "vekctl: lost the connection to vekd, trying again\n");
		client_.reset();
		outcome end = passed;
		for (int pause_ms = 50;; pause_ms = std::min(2 * pause_ms, 1000)) {
			end = wait(-1, pause_ms);
			if (end != passed)
				break;
			try {
				subscribe(std::min(set_.timeout_ms(), 1000));
				std::fprintf(stderr, "vekctl: connected again\n");
				break;
			} catch (const failure &) {
				client_.reset();
			}
		}
		out_.gap(since);
		return end;
	}

	const settings &set_;
	const watch_options &options_;
	printer out_;
	connection client_{nullptr, &vek_client_close};
	clock_type::time_point end_;
};

} // namespace

void add_watch_command(CLI::App &app, settings &set)
{
	auto options = std::make_shared<watch_options>();
	CLI::App *command = add_command(app, set, "watch", "Follow logins and logouts as they happen",
					"vekctl watch --for 60 --json", [&set, options] {
						end_when_asked();
						if (!options->wanted.hint().empty())
							warn(options->wanted.hint());
						watcher(set, *options).run();
					});
	options->wanted.add_options(*command);
	command->add_option("--for", options->seconds, "end after so many seconds")
	    ->check(CLI::Range(0.001, 1e9))
	    ->type_name("SECONDS");
	command->add_option("--count", options->count, "end after so many events")
	    ->check(CLI::Range(1, 1000000000));
}
