// output.h: how results reach people and programs: aligned tables that fit the terminal, JSON in one shape,
// text from records made harmless on the way to either, and the exit status of what failed. Nothing here
// knows of the daemon.
#ifndef VEKCTL_OUTPUT_H
#define VEKCTL_OUTPUT_H

#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

enum exit_status {
	status_ok = 0,
	status_refused = 1, // or not found, or the output could not be written
	status_usage = 2,
	status_no_daemon = 3,
	status_timed_out = 4,
	status_unexpected = 5 // an answer that is none
};

// Ends the command: one line on standard error (none when the message is empty) and the exit status.
struct failure {
	int status;
	std::string message;
};

// How the user wants results to look.
struct style {
	bool json = false;
	bool no_header = false;
	bool full = false; // nothing is cut
	bool no_pager = false;
	bool absolute = false; // dates instead of durations
};

using json = nlohmann::ordered_json; // members in the order of the record

// Text from a record for a terminal: control and invalid bytes as \xNN, also what would reorder the line.
std::string escaped(std::string_view text);

std::string json_text(const json &value); // one line, ASCII, invalid UTF-8 as U+FFFD

// An object with the version of the shape first.
json json_result();

// "12s", "48m", "1h59m", "2d3h".
std::string span_text(std::uint64_t seconds);

// Seconds of a device's uptime for people, as of the moment that it was asked: how long ago or how far ahead,
// or as a date of this system's clock.
struct times {
	std::uint64_t uptime;
	std::time_t now;
	bool absolute;

	std::string since(std::uint64_t then) const;     // "12m" or "2026-11-24 00:04:17"
	std::string until(std::uint64_t deadline) const; // the same; "now" when it has passed
	std::string ago(std::uint64_t then) const;       // "12m ago" or the date
	std::string ahead(std::uint64_t deadline) const; // "in 12m" or the date
};

std::string date_text(std::time_t at, const char *format = "%Y-%m-%d %H:%M:%S");
std::string rfc3339(std::time_t at); // as in 2026-11-22T21:04:05+01:00

// What of `known` is most like a word that is none of them, as " (did you mean ssh?)"; "" when nothing is.
std::string did_you_mean(std::string_view word, const std::vector<std::string> &known);

// Writes to standard output at once. The failure of a closed pipe has no message.
void put(std::string_view text);
void put_line(std::string_view text);
void put_json(const json &value);

// One line on standard error that changes no exit status.
void warn(const std::string &message);

// Columns of standard output when that is a terminal, else 0: no limit.
std::size_t terminal_width(const style &look);

// Cuts a line to so many columns, with an ellipsis for what is missing; 0: no limit.
std::string cut(const std::string &line, std::size_t width);

// What a column gives up when the terminal is too narrow: a program's key is cut first, then a text, an
// address, and last a number or a duration, of which a part says something else.
enum class cutting : std::uint8_t { key, text, address, exact };

struct heading {
	std::string title;
	cutting gives = cutting::text;
};

class table {
public:
	explicit table(std::vector<heading> columns) : columns_(std::move(columns)) {}

	// Cells are escaped already; an empty one is shown as "-".
	void row(std::vector<std::string> cells);
	// Through a pager when it is longer than the terminal.
	void print(const style &look, const std::string &after = "") const;

private:
	std::vector<heading> columns_;
	std::vector<std::vector<std::string>> rows_;
};

#endif
