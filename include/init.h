// init.h: the modules' start-up and shut-down functions, run by two fixed tables in main.cpp.
#ifndef INIT_H
#define INIT_H

int userdb_init();
int listener_init();
int responder_init();
int logger_init();
int terminator_init();
int lockout_init();

int userdb_exit();
int lockout_exit();

// Runs the start-up functions in table order. A module that fails has said so; the daemon runs on without it.
void do_initcalls();

// Runs the shut-down functions in table order. They remove only what this process created or took over, so
// they may be called on every way out.
void do_exitcalls();

#endif
