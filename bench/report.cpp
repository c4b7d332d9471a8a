// report.cpp: statistics that a noisy machine does not upset (medians, quartiles), markdown tables whose
// source reads as a table too, and a small picture writer.
#include "report.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>

namespace {

__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...)
{
	char buffer[1024];
	va_list args;
	va_start(args, format);
	std::vsnprintf(buffer, sizeof(buffer), format, args);
	va_end(args);
	return buffer;
}

// Three digits that say something, and no more than two behind the point.
std::string number(double value, const std::string &unit = "")
{
	const double size = std::fabs(value);
	const int decimals = size >= 100 || value == std::floor(value) ? 0 : size >= 10 ? 1 : 2;
	return text("%.*f%s%s", decimals, value, unit.empty() ? "" : " ", unit.c_str());
}

std::string spread(const figure &row)
{
	if (row.samples.size() < 4)
		return "";
	return number(quantile(row.samples, 0.25)) + " to " + number(quantile(row.samples, 0.75));
}

std::string reach(const figure &row)
{
	if (std::isnan(row.reach))
		return "";
	return (row.reach < 0 ? "at least " : "at most ") + number(std::fabs(row.reach), row.unit);
}

using row_text = std::vector<std::string>;

std::string markdown(const std::vector<row_text> &rows)
{
	std::vector<std::size_t> widths(rows.front().size());
	for (const row_text &row : rows)
		for (std::size_t i = 0; i < row.size(); i++)
			widths[i] = std::max(widths[i], row[i].size());
	std::string out;
	for (std::size_t r = 0; r < rows.size(); r++) {
		for (std::size_t i = 0; i < widths.size(); i++)
			out += "| " + rows[r][i] + std::string(widths[i] - rows[r][i].size() + 1, ' ');
		out += "|\n";
		for (std::size_t i = 0; r == 0 && i < widths.size(); i++)
			out += "|" + std::string(widths[i] + 2, '-') + (i + 1 == widths.size() ? "|\n" : "");
	}
	return out;
}

// ---- the picture ----

constexpr double WIDTH = 820, PLOT_WIDTH = 520, PLOT_HEIGHT = 260, LEFT = 60, TOP = 50, PANEL = 370;
constexpr const char *COLOURS[] = {"#1f6fb4", "#c9302c", "#2e8b57", "#8e44ad", "#d98200", "#555555"};

// A step of 1, 2 or 5 times a power of ten that gives a handful of marks.
double step_for(double top)
{
	const double power = std::pow(10, std::floor(std::log10(top / 5)));
	for (double factor : {1.0, 2.0, 5.0})
		if (top / (factor * power) <= 6)
			return factor * power;
	return 10 * power;
}

std::string label(double x, double y, const char *anchor, const std::string &what, const char *more = "")
{
	return text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" %s>%s</text>\n", x, y, anchor, more,
		    what.c_str());
}

std::string panel_svg(const panel &drawn, double top)
{
	double x_top = 0, y_top = 0;
	for (const auto &[name, curve] : drawn.curves)
		for (const auto &[x, y] : curve) {
			x_top = std::max(x_top, x);
			y_top = std::max(y_top, y);
		}
	const double x_step = step_for(x_top), y_step = step_for(y_top);
	y_top = std::ceil(y_top / y_step) * y_step;
	const double bottom = top + PLOT_HEIGHT;
	const auto at_x = [&](double x) { return LEFT + x / x_top * PLOT_WIDTH; };
	const auto at_y = [&](double y) { return bottom - y / y_top * PLOT_HEIGHT; };

	std::string out = label(LEFT, top - 22, "start", drawn.title, "font-weight=\"bold\"") +
			  label(LEFT, top - 7, "start", drawn.y_title, "fill=\"#555\"") +
			  label(LEFT + PLOT_WIDTH / 2, bottom + 34, "middle", drawn.x_title, "fill=\"#555\"");
	for (double y = 0; y <= y_top * 1.001; y += y_step)
		out += text("<path d=\"M%.1f %.1fh%.1f\" stroke=\"#ddd\"/>\n", LEFT, at_y(y), PLOT_WIDTH) +
		       label(LEFT - 6, at_y(y) + 4, "end", number(y));
	for (double x = 0; x <= x_top * 1.001; x += x_step)
		out += label(at_x(x), bottom + 16, "middle", number(x));

	// Names stand at the curves' ends, pushed apart where these lie close together.
	std::vector<std::pair<double, std::size_t>> ends;
	for (std::size_t i = 0; i < drawn.curves.size(); i++)
		ends.emplace_back(at_y(drawn.curves[i].second.back().second), i);
	std::ranges::sort(ends);
	double lowest = top;
	for (const auto &[end, i] : ends) {
		const auto &[name, curve] = drawn.curves[i];
		const char *colour = COLOURS[i % std::size(COLOURS)];
		out += text("<g stroke=\"%s\" fill=\"%s\">", colour, colour);
		std::string path;
		for (const auto &[x, y] : curve) {
			path += text("%s%.1f %.1f", path.empty() ? "M" : "L", at_x(x), at_y(y));
			out += text("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\"/>", at_x(x), at_y(y));
		}
		out += "<path d=\"" + path + "\" fill=\"none\" stroke-width=\"1.5\"/></g>\n";
		lowest = std::max(lowest + 16, end + 4);
		out +=
		    label(LEFT + PLOT_WIDTH + 10, lowest, "start", name, text("fill=\"%s\"", colour).c_str());
	}
	return out;
}

} // namespace

double quantile(std::vector<double> samples, double part)
{
	if (samples.empty())
		return 0;
	const auto place = static_cast<std::ptrdiff_t>(part * static_cast<double>(samples.size() - 1) + 0.5);
	std::nth_element(samples.begin(), samples.begin() + place, samples.end());
	return samples[static_cast<std::size_t>(place)];
}

double median(const std::vector<double> &samples) { return quantile(samples, 0.5); }

bool figure::met() const
{
	if (std::isnan(reach))
		return true;
	return reach < 0 ? median(samples) >= -reach : median(samples) <= reach;
}

line fit(const points &curve)
{
	const auto n = static_cast<double>(curve.size());
	double sx = 0, sy = 0, sxx = 0, sxy = 0;
	for (const auto &[x, y] : curve) {
		sx += x;
		sy += y;
		sxx += x * x;
		sxy += x * y;
	}
	const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
	return {(sy - slope * sx) / n, slope};
}

std::string figures_table(const std::vector<figure> &figures)
{
	std::vector<row_text> rows = {{"What", "Median", "Quartiles", "Reach", "Met"}};
	for (const figure &row : figures)
		rows.push_back({row.what, number(median(row.samples), row.unit), spread(row), reach(row),
				std::isnan(row.reach) ? ""
				: row.met()           ? "yes"
						      : "NO"});
	return markdown(rows);
}

std::string growth_table(const std::vector<growth> &rows)
{
	std::vector<row_text> out = {{"What grows", "Each", "Adds", "Today at most", "Ten times that"}};
	for (const growth &row : rows) {
		const auto [start, slope] = fit(row.curve);
		const auto at = [&](double x) {
			return text("%.0f: ", x) + number(std::max(0.0, start + slope * x) / 1000, "us");
		};
		// A straight line that does not rise says that the growth is below what can be measured.
		if (slope <= 0)
			out.push_back({row.what, row.per, "not measurable", at(row.bound), ""});
		else
			out.push_back({row.what, row.per, number(slope, "ns"), at(row.bound), at(10 * row.bound)});
	}
	return markdown(out);
}

bool write_file(const std::string &path, const std::string &what)
{
	std::ofstream file(path);
	file << what;
	return file.flush().good();
}

std::string plot_svg(const std::vector<panel> &panels)
{
	const double height = PANEL * static_cast<double>(panels.size());
	std::string out = text("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" "
			       "font-family=\"sans-serif\" font-size=\"12\">\n"
			       "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
			       WIDTH, height);
	for (std::size_t i = 0; i < panels.size(); i++)
		out += panel_svg(panels[i], TOP + PANEL * static_cast<double>(i));
	return out + "</svg>\n";
}
