// output.cpp: tables, JSON and the escaping of text from records. Columns are those of the terminal: a wide
// character takes two, an accent of its own none.
#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <numeric>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// One character of UTF-8 text; `code` is -1 for a byte that is part of none.
struct character {
	std::size_t bytes;
	std::int32_t code;
};

character first_character(std::string_view text)
{
	const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
	const unsigned char lead = byte(0);
	if (lead < 0x80)
		return {1, lead};
	const std::size_t bytes = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
	if (lead < 0xc2 || lead > 0xf4 || text.size() < bytes)
		return {1, -1};
	std::int32_t code = lead & (0x7f >> bytes);
	for (std::size_t i = 1; i < bytes; i++) {
		if ((byte(i) & 0xc0) != 0x80)
			return {1, -1};
		code = code << 6 | (byte(i) & 0x3f);
	}
	constexpr std::int32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
	if (code < least[bytes] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
		return {1, -1};
	return {bytes, code};
}

// Characters that steer a terminal or turn the direction of what follows.
bool is_harmful(std::int32_t code)
{
	return code < 0x20 || (code >= 0x7f && code < 0xa0) || (code >= 0x200e && code <= 0x200f) ||
	       (code >= 0x2028 && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069) || code == 0xfeff;
}

std::size_t columns_of(std::int32_t code)
{
	const int columns = wcwidth(static_cast<wchar_t>(code));
	return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

std::size_t columns_of(std::string_view text)
{
	std::size_t columns = 0;
	for (std::size_t at = 0; at < text.size();) {
		const character next = first_character(text.substr(at));
		columns += columns_of(next.code);
		at += next.bytes;
	}
	return columns;
}

// Takes from the widest columns until the line fits or none is worth cutting.
void shrink(std::vector<std::size_t> &widths, std::size_t room)
{
	constexpr std::size_t least = 4;
	std::size_t total = std::accumulate(widths.begin(), widths.end(), std::size_t{0});
	for (; total > room; total--) {
		const auto widest = std::max_element(widths.begin(), widths.end());
		if (widest == widths.end() || *widest <= least)
			return;
		--*widest;
	}
}

} // namespace

std::string escaped(std::string_view text)
{
	constexpr char digits[] = "0123456789abcdef";
	std::string out;
	for (std::size_t at = 0; at < text.size();) {
		const character next = first_character(text.substr(at));
		// A backslash that would look like the beginning of an escape is one itself.
		const bool looks_escaped = text.substr(at, 2) == "\\x";
		for (std::size_t i = at; i < at + next.bytes; i++) {
			const auto byte = static_cast<unsigned char>(text[i]);
			if (is_harmful(next.code) || looks_escaped)
				out += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
			else
				out += text[i];
		}
		at += next.bytes;
	}
	return out;
}

std::string json_text(const json &value) { return value.dump(-1, ' ', true, json::error_handler_t::replace); }

json json_result() { return {{"version", 1}}; }

std::string span_text(std::uint64_t seconds)
{
	const auto two = [](std::uint64_t whole, const char *unit, std::uint64_t rest, const char *smaller) {
		return std::to_string(whole) + unit + (rest ? std::to_string(rest) + smaller : "");
	};
	if (seconds < 60)
		return std::to_string(seconds) + "s";
	if (seconds < 3600)
		return std::to_string(seconds / 60) + "m";
	if (seconds < 86400)
		return two(seconds / 3600, "h", seconds / 60 % 60, "m");
	return two(seconds / 86400, "d", seconds / 3600 % 24, "h");
}

void put(std::string_view text)
{
	while (!text.empty()) {
		const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
		if (written >= 0) {
			text.remove_prefix(static_cast<std::size_t>(written));
		} else if (errno == EAGAIN) {
			struct pollfd out = {STDOUT_FILENO, POLLOUT, 0};
			poll(&out, 1, -1);
		} else if (errno != EINTR) {
			throw failure{status_refused,
				      errno == EPIPE
					  ? ""
					  : std::string("cannot write the output: ") + std::strerror(errno)};
		}
	}
}

void put_line(std::string_view text) { put(std::string(text) + "\n"); }

void put_json(const json &value) { put_line(json_text(value)); }

std::size_t terminal_width()
{
	struct winsize size = {};
	if (!isatty(STDOUT_FILENO) || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) < 0)
		return 0;
	return size.ws_col;
}

std::string cut(const std::string &line, std::size_t width)
{
	if (width == 0 || columns_of(line) <= width)
		return line;
	std::size_t columns = 1; // the ellipsis
	std::size_t at = 0;
	while (at < line.size()) {
		const character next = first_character(std::string_view(line).substr(at));
		columns += columns_of(next.code);
		if (columns > width)
			break;
		at += next.bytes;
	}
	return line.substr(0, at) + "…";
}

void table::row(std::vector<std::string> cells)
{
	for (std::string &cell : cells)
		if (cell.empty())
			cell = "-";
	rows_.push_back(std::move(cells));
}

void table::print(bool with_header) const
{
	std::vector<const std::vector<std::string> *> lines;
	if (with_header)
		lines.push_back(&header_);
	for (const auto &cells : rows_)
		lines.push_back(&cells);

	std::vector<std::size_t> widths(header_.size(), 1);
	for (const auto *cells : lines)
		for (std::size_t i = 0; i < widths.size(); i++)
			widths[i] = std::max(widths[i], columns_of((*cells)[i]));
	const std::size_t terminal = terminal_width();
	const std::size_t gap = terminal != 0 && terminal < 80 ? 1 : 2;
	if (terminal != 0)
		shrink(widths, terminal - std::min(terminal, gap * (widths.size() - 1)));

	std::string out;
	for (const auto *cells : lines) {
		std::string line;
		for (std::size_t i = 0; i < widths.size(); i++) {
			const std::string cell = cut((*cells)[i], widths[i]);
			line += cell;
			if (i + 1 < widths.size())
				line.append(widths[i] - columns_of(cell) + gap, ' ');
		}
		out += cut(line, terminal) + "\n";
	}
	put(out);
}
