// ftp_table.h: the table in which the ftp server keeps its clients' processes, in shared memory under a lock.
#ifndef FTP_TABLE_H
#define FTP_TABLE_H

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "vek.h"

// A process that the table named, and how to know it again.
struct ftp_process {
	int pid;
	std::uint64_t start; // in clock ticks since boot: a number is used again, but not with the same start
	uid_t owner;         // whoever made the table; root's may name anybody's process

	bool operator==(const ftp_process &) const = default;
};

// Takes the client whose session ended out of the table. Its process; nothing when none is to be ended.
std::optional<ftp_process> ftp_table_take(const vek_event *event);

// Is it still that process, and may the table's maker have it ended?
bool ftp_process_may_be_ended(const ftp_process &process);

#endif
