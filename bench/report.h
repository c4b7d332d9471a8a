// report.h: what road has to say: figures with their spread and reach, slopes, curves; as tables for a reader
// and for docs/performance.md, and as a picture.
#ifndef REPORT_H
#define REPORT_H

#include <limits>
#include <string>
#include <utility>
#include <vector>

// The value below which that part (0 to 1) of the samples lies. The samples may be in any order.
double quantile(std::vector<double> samples, double part);
double median(const std::vector<double> &samples);

// Everything one row says: a figure is met by its median.
struct figure {
	std::string what;
	std::string unit; // of the samples and the reach; empty for a ratio
	double reach;     // at most; at least when negative; NaN: nothing is asked
	std::vector<double> samples;
	bool met() const;
};
constexpr double at_least(double value) { return -value; }
constexpr double NO_REACH = std::numeric_limits<double>::quiet_NaN();

using points = std::vector<std::pair<double, double>>; // x, y

// By least squares: y at 0 and the growth of y with each x.
struct line {
	double start, slope;
};
line fit(const points &curve);

// What grows: one measured curve in nanoseconds, today's bound of its x, and what it comes to at ten times.
struct growth {
	std::string what;
	std::string per; // what one x is
	points curve;
	double bound;
};

struct panel {
	std::string title, x_title, y_title;
	std::vector<std::pair<std::string, points>> curves;
};

std::string figures_table(const std::vector<figure> &figures);
std::string growth_table(const std::vector<growth> &rows);
// False when the file cannot be written.
bool write_file(const std::string &path, const std::string &text);
std::string plot_svg(const std::vector<panel> &panels);

#endif
