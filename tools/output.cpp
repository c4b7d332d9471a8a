// output.cpp: tables, JSON and the escaping of text from records. Columns are those of the terminal: a wide
// character takes two, an accent of its own none. A terminal without UTF-8 gets ASCII alone: there the bytes
// of a longer character are characters of their own, some of which steer it.
#include "output.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <langinfo.h>
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

// Sets the locale in which the width of characters is known, whichever the user's is.
bool terminal_has_utf8()
{
	static const bool has = [] {
		std::setlocale(LC_CTYPE, "");
		const bool utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
		std::setlocale(LC_CTYPE, "C.UTF-8");
		return utf8 || !isatty(STDOUT_FILENO);
	}();
	return has;
}

// Takes from the widest column of those that may give, the last of several, until the line fits.
void shrink(std::vector<std::size_t> &widths, const std::vector<heading> &columns, std::size_t room)
{
	struct step {
		cutting gives;
		std::size_t least;
	};
	constexpr step steps[] = {{cutting::key, 8},  {cutting::text, 12},    {cutting::address, 24},
				  {cutting::text, 8}, {cutting::address, 15}, {cutting::key, 4},
				  {cutting::text, 4}, {cutting::address, 4},  {cutting::exact, 4}};
	std::size_t total = std::accumulate(widths.begin(), widths.end(), std::size_t{0});
	for (const auto &[gives, least] : steps)
		for (; total > room; total--) {
			std::size_t widest = widths.size();
			for (std::size_t i = 0; i < widths.size(); i++)
				if (columns[i].gives == gives && widths[i] > least &&
				    (widest == widths.size() || widths[i] >= widths[widest]))
					widest = i;
			if (widest == widths.size())
				break;
			widths[widest]--;
		}
}

// Whether the user's pager has shown the text. One that is not there has not.
bool paged(const std::string &text)
{
	const char *pager = std::getenv("PAGER");
	setenv("LESS", "FRSX", 0);
	// The user's own shell runs the user's own choice, as everywhere.
	FILE *reader = popen(pager != nullptr ? pager : "less", "we"); // NOLINT(cert-env33-c)
	if (reader == nullptr)
		return false;
	const auto interrupted = std::signal(SIGINT, SIG_IGN); // which is the pager's to obey
	std::fwrite(text.data(), 1, text.size(), reader);
	const int status = pclose(reader);
	std::signal(SIGINT, interrupted);
	return status != 127 << 8;
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
			if (is_harmful(next.code) || looks_escaped || (byte >= 0x80 && !terminal_has_utf8()))
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

std::string date_text(std::time_t at, const char *format)
{
	char text[64] = "";
	struct tm parts = {};
	std::strftime(text, sizeof(text), format, localtime_r(&at, &parts));
	return text;
}

std::string rfc3339(std::time_t at) { return date_text(at, "%Y-%m-%dT%H:%M:%S%z").insert(22, ":"); }

std::string times::since(std::uint64_t then) const
{
	if (absolute)
		return date_text(now - static_cast<std::time_t>(uptime - then));
	return span_text(uptime > then ? uptime - then : 0);
}

std::string times::until(std::uint64_t deadline) const
{
	if (deadline == 0)
		return "";
	if (absolute)
		return date_text(now + static_cast<std::time_t>(deadline - uptime));
	return deadline > uptime ? span_text(deadline - uptime) : "now";
}

std::string times::ago(std::uint64_t then) const { return since(then) + (absolute ? "" : " ago"); }

std::string times::ahead(std::uint64_t deadline) const
{
	return (absolute || deadline <= uptime ? "" : "in ") + until(deadline);
}

// By the number of letters to change, add or leave out, at most a third of them.
std::string did_you_mean(std::string_view word, const std::vector<std::string> &known)
{
	std::size_t least = word.size() / 3 + 2;
	std::string nearest;
	for (const std::string &candidate : known) {
		std::vector<std::size_t> row(candidate.size() + 1);
		std::iota(row.begin(), row.end(), std::size_t{0});
		for (std::size_t i = 0; i < word.size(); i++) {
			std::size_t corner = std::exchange(row[0], i + 1);
			for (std::size_t j = 0; j < candidate.size(); j++) {
				const std::size_t changed = corner + (word[i] != candidate[j]);
				corner = row[j + 1];
				row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
			}
		}
		if (row.back() < least) {
			least = row.back();
			nearest = candidate;
		}
	}
	return nearest.empty() ? "" : " (did you mean " + nearest + "?)";
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

void warn(const std::string &message) { std::fprintf(stderr, "vekctl: warning: %s\n", message.c_str()); }

std::size_t terminal_width(const style &look)
{
	struct winsize size = {};
	if (look.full || !isatty(STDOUT_FILENO) || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) < 0)
		return 0;
	return size.ws_col;
}

std::string cut(const std::string &line, std::size_t width)
{
	const std::string ellipsis = terminal_has_utf8() ? "…" : "...";
	if (width == 0 || columns_of(line) <= width)
		return line;
	std::size_t columns = columns_of(ellipsis);
	std::size_t at = 0;
	while (at < line.size()) {
		const character next = first_character(std::string_view(line).substr(at));
		columns += columns_of(next.code);
		if (columns > width)
			break;
		at += next.bytes;
	}
	return line.substr(0, at) + ellipsis;
}

void table::row(std::vector<std::string> cells)
{
	for (std::string &cell : cells)
		if (cell.empty())
			cell = "-";
	rows_.push_back(std::move(cells));
}

void table::print(const style &look, const std::string &after) const
{
	std::vector<std::vector<std::string>> lines;
	if (!look.no_header)
		for (const heading &column : columns_)
			lines.resize(1), lines[0].push_back(column.title);
	lines.insert(lines.end(), rows_.begin(), rows_.end());

	terminal_has_utf8();
	std::vector<std::size_t> widths(columns_.size(), 1);
	for (const auto &cells : lines)
		for (std::size_t i = 0; i < widths.size(); i++)
			widths[i] = std::max(widths[i], columns_of(cells[i]));
	const std::size_t terminal = terminal_width(look);
	const std::size_t between = widths.size() - 1;
	const std::size_t whole = std::accumulate(widths.begin(), widths.end(), 2 * between);
	const std::size_t gap = terminal != 0 && terminal < whole ? 1 : 2;
	if (terminal != 0)
		shrink(widths, columns_, terminal - std::min(terminal, gap * between));

	std::string out;
	for (const auto &cells : lines) {
		std::string line;
		for (std::size_t i = 0; i < widths.size(); i++) {
			const std::string cell = cut(cells[i], widths[i]);
			line += cell;
			if (i + 1 < widths.size())
				line.append(widths[i] - columns_of(cell) + gap, ' ');
		}
		out += cut(line, terminal) + "\n";
	}
	out += after;
	struct winsize size = {};
	const bool is_long = !look.no_pager && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO) &&
			     ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 &&
			     std::count(out.begin(), out.end(), '\n') >= size.ws_row;
	if (!is_long || !paged(out))
		put(out);
}
