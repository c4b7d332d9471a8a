// list.h: intrusive circular doubly linked lists. A `list_head` is both the link inside a record and the
// head of a list. An unlinked link has both pointers null, so "linked?" has an answer. Lists never own what
// is linked: removing unlinks, it frees nothing.
//
// Use list_of<&record::member>: a list of one member, so that the wrong link does not compile.
#ifndef LIST_H
#define LIST_H

#include <bit>
#include <cstddef>

struct list_head {
	list_head *next;
	list_head *prev;
};

inline void list_init(list_head *head) { head->next = head->prev = head; }

inline bool list_linked(const list_head *entry) { return entry->next != nullptr && entry->prev != nullptr; }

inline void list_add_between(list_head *entry, list_head *prev, list_head *next)
{
	entry->prev = prev;
	entry->next = next;
	prev->next = entry;
	next->prev = entry;
}

// Directly after `head`: at the front of the list when it is a list's head.
inline void list_add(list_head *entry, list_head *head) { list_add_between(entry, head, head->next); }

// Directly before `head`: at the tail of the list when it is a list's head.
inline void list_add_tail(list_head *entry, list_head *head) { list_add_between(entry, head->prev, head); }

// Takes a linked entry out of its list and clears its links.
inline void list_del(list_head *entry)
{
	entry->prev->next = entry->next;
	entry->next->prev = entry->prev;
	entry->next = entry->prev = nullptr;
}

// Takes a linked entry out of its list and puts it directly after `head`.
inline void list_move(list_head *entry, list_head *head)
{
	list_del(entry);
	list_add(entry, head);
}

namespace list_detail {
template <class> struct member_of;
template <class Record> struct member_of<list_head Record::*> {
	using type = Record;
};
} // namespace list_detail

// The record that holds `link` as its `Member`. The one place that turns a link into its record: a pointer
// to a data member is, in the ABI of every platform we build for, the member's offset.
template <auto Member> auto *list_entry(list_head *link)
{
	using Record = typename list_detail::member_of<decltype(Member)>::type;
	return reinterpret_cast<Record *>(reinterpret_cast<char *>(link) -
					  std::bit_cast<std::ptrdiff_t>(Member));
}

template <auto Member> class list_of {
	using Record = typename list_detail::member_of<decltype(Member)>::type;

public:
	constexpr list_of() : head_{&head_, &head_} {}
	list_of(const list_of &) = delete;
	list_of &operator=(const list_of &) = delete;

	// Forgets what is linked, without touching it.
	void clear() { list_init(&head_); }
	bool empty() const { return head_.next == &head_; }
	Record *front() { return empty() ? nullptr : list_entry<Member>(head_.next); }
	Record *back() { return empty() ? nullptr : list_entry<Member>(head_.prev); }
	void push_front(Record *record) { list_add(&(record->*Member), &head_); }
	void push_back(Record *record) { list_add_tail(&(record->*Member), &head_); }
	constexpr list_head *head() { return &head_; }

	struct iterator {
		list_head *link;
		Record *operator*() const { return list_entry<Member>(link); }
		iterator &operator++()
		{
			link = link->next;
			return *this;
		}
		bool operator==(const iterator &) const = default;
	};
	// The loop body must not unlink the record it stands on; take front() in a loop for that.
	iterator begin() { return {head_.next}; }
	iterator end() { return {&head_}; }

private:
	list_head head_;
};

#endif
