// output.h: how results reach people and programs: aligned tables that fit the terminal, JSON in one shape,
// and text from records made harmless on the way to either.
#ifndef VEKCTL_OUTPUT_H
#define VEKCTL_OUTPUT_H

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "vekctl.h"

using json = nlohmann::ordered_json; // members in the order of the record

// Text from a record for a terminal: control and invalid bytes as \xNN, also what would reorder the line.
std::string escaped(std::string_view text);

std::string json_text(const json &value); // one line, ASCII, invalid UTF-8 as U+FFFD

// An object with the version of the shape first.
json json_result();

// "12s", "48m", "1h59m", "2d3h".
std::string span_text(std::uint64_t seconds);

// Writes to standard output at once. The failure of a closed pipe has no message.
void put(std::string_view text);
void put_line(std::string_view text);
void put_json(const json &value);

// Columns of standard output when that is a terminal, else 0: no limit.
std::size_t terminal_width();

// Cuts a line to so many columns, with an ellipsis for what is missing; 0: no limit.
std::string cut(const std::string &line, std::size_t width);

class table {
public:
	explicit table(std::vector<std::string> header) : header_(std::move(header)) {}

	// Cells are escaped already; an empty one is shown as "-".
	void row(std::vector<std::string> cells);
	void print(bool with_header) const;

private:
	std::vector<std::string> header_;
	std::vector<std::vector<std::string>> rows_;
};

#endif
