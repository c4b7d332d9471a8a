// vek_event.cpp: the event bus: one chain of handlers per event number, sorted when a handler is registered.
#include "vek_event.h"

#include <cstdio>

#include "misc.h"

event_handlers event_chain[VEK_EVENT_LIMIT];

namespace {

event_handlers *chain_of(int event)
{
	return event >= 0 && event < VEK_EVENT_LIMIT ? &event_chain[event] : nullptr;
}

} // namespace

void vek_init_event()
{
	for (event_handlers &chain : event_chain)
		chain.clear();
}

void vek_fini_event()
{
	for (event_handlers &chain : event_chain)
		while (event_handler *node = chain.front()) {
			list_del(&node->list);
			vek_free(node);
		}
}

int vek_register_event(int event, int priority, vek_event_handler handler)
{
	event_handlers *chain = chain_of(event);
	if (chain == nullptr)
		return -1;
	auto *node = static_cast<event_handler *>(vek_malloc(sizeof(event_handler)));
	if (node == nullptr)
		return -1;
	node->priority = priority;
	node->handler = handler;

	list_head *place = chain->head();
	for (event_handler *other : *chain)
		if (other->priority <= priority)
			place = &other->list;
	list_add(&node->list, place);
	return 0;
}

void vek_unregister_event(int event, vek_event_handler handler)
{
	event_handlers *chain = chain_of(event);
	if (chain == nullptr)
		return;
	for (event_handler *node : *chain)
		if (node->handler == handler) {
			list_del(&node->list);
			vek_free(node);
			return;
		}
}

int vek_dispatch_event(vek_event *event, vek_socket *sock)
{
	event_handlers *chain = chain_of(event->event);
	if (chain == nullptr)
		return 0;
	for (event_handler *node : *chain)
		if (node->handler(event, sock) == VEK_STOP_DISPATCH)
			return 1;
	return 0;
}

int vek_register_events(const vek_registration *table, int count, const char *failure)
{
	for (int i = 0; i < count; i++)
		if (vek_register_event(table[i].event, table[i].priority, table[i].handler) < 0) {
			std::fputs(failure, stderr);
			return -1;
		}
	return 0;
}
