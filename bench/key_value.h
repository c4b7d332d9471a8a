// key_value.h: a key-value server doing the daemon's bookkeeping: a session's record, its membership in the
// sets of its name, address and service, its deadline, and what followers are told, in one transaction.
#ifndef KEY_VALUE_H
#define KEY_VALUE_H

#include <string>

#include "peers.h"

class key_value_peer {
public:
	key_value_peer(); // starts redis-server, when it is installed
	key_value_peer(key_value_peer &&) = delete;
	~key_value_peer();
	bool running() const { return fd_ >= 0; }

	// The bytes of a login's or a logout's transaction.
	static std::string transaction(const vek_event &event);
	void commit(const std::string &transaction) const;

private:
	child process_;
	int fd_ = -1;
};

#endif
