// view.h: sessions and events as people and programs see them: the columns of a table, its order, one line or
// one JSON object each. Nothing here knows of the daemon.
#ifndef VEKCTL_VIEW_H
#define VEKCTL_VIEW_H

#include <string>
#include <vector>

#include "fields.h"

using sessions = std::vector<user_info>;

// A field of the session, or a column made of several.
class column {
public:
	explicit column(const std::string &name); // fails for a name that is none

	const std::string &name() const { return name_; }
	heading head() const;
	std::string text(const user_info &session, const times &when) const;
	void add_json(json &object, const user_info &session) const;
	int order(const user_info &a, const user_info &b) const;

private:
	std::string name_;
	const vek_field *field_;
	const struct made_column *made_;
};

std::vector<std::string> column_names();

// By several columns, the first counting most; "-" before a name turns its order.
void sort_sessions(sessions &found, const std::vector<std::string> &by);

void print_sessions(const style &look, const sessions &found, const std::vector<column> &columns,
		    const times &when);
json sessions_json(const sessions &found, const std::vector<column> &columns = {}); // none: every field

// "alice (ssh, admin) from 192.0.2.7"
std::string describe(const user_info &session);

// "logged in: alice (ssh, admin) from 192.0.2.7", and the terminal's sequence for its colour.
std::string event_text(const vek_event &event);
const char *event_colour(const vek_event &event);
json event_json(const vek_event &event, const std::string &time);

#endif
