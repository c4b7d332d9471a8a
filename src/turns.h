// turns.h: when a record that lies in a connection is handled: at once, or after something that it has to wait for.
// vek_begin_pass and vek_catch_up (endpoint.h) are here too.
#ifndef TURNS_H
#define TURNS_H

#include "vek_socket.h"

// Reads from a connection, or leaves what it sends where it is for a while. False when it cannot be watched.
bool turns_watch(vek_socket *sock, vek_waits waits);

// A record may lie in this connection: handles it unless it has to wait.
void turns_serve(vek_socket *sock);

// Something has changed that nobody else says: those who wait are looked at before the next pass.
void turns_look_again();

#endif
