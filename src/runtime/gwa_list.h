// gwa_list.h - the one intrusive container: a circular doubly linked list with a sentinel head.
//
// Owns and allocates nothing; whoever holds a list says which lock guards it. Records derive from
// list_link and are made and reset by `new (memory) record{}`, never by memset, which would null
// their links.
#pragma once

struct list_link {  // points at itself while it is in no list, so no link is ever null
    list_link* next = this;
    list_link* prev = this;
    list_link() = default;
    list_link(list_link&&) = delete;  // neither moved nor copied: the neighbours hold its address
};

// Links `link`, which is in no list, right before `position`.
void list_insert_before(list_link& position, list_link& link);
// Takes `link` out of its list; its own pointers stay as they are until list_reset.
void list_unlink(list_link& link);
// Makes `link` point at itself: in no list, or an empty list when it is a head.
void list_reset(list_link& link);

// A place in a ring, on the way through it.
struct list_cursor {
    list_link *link, *next;  // next is read early: the loop body may free its own record
    list_cursor& operator++() { return *this = {next, next->next}; }
    bool operator==(const list_cursor& other) const { return link == other.link; }
};

// A typed ring of records that derive from list_link.
template <typename T>
struct list {
    list_link head;
    struct iterator : list_cursor {
        T& operator*() const { return static_cast<T&>(*link); }
    };
    bool empty() const { return head.next == &head; }
    iterator begin() { return {{head.next, head.next->next}}; }
    iterator end() { return {{&head, head.next}}; }
    T* first() { return empty() ? nullptr : static_cast<T*>(head.next); }
    T* last() { return empty() ? nullptr : static_cast<T*>(head.prev); }
    void push_front(T& record) { list_insert_before(*head.next, record); }
    void push_back(T& record) { list_insert_before(head, record); }
};
