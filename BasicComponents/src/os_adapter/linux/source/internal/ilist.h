// The library's one linked list: intrusive and doubly linked. A record that
// can sit on a list holds a Link; the list is a ring through a head Link of
// its own, so linking and unlinking never allocate, never fail and take no
// branch on the ends. A record is on at most one list per Link at a time, and
// the caller's lock (or thread) owns every list it touches.
//
//   struct Job { ilist::Link link; int id; };
//   ilist::List<Job, &Job::link> jobs;
//   jobs.push_back(job);  for (Job& j : jobs) ...;  Job* first = jobs.pop_front();
//
// A ring whose head lives in a public record (the tasklet queue's) is worked
// with the ring functions below; Link has the next-then-prev layout of such
// records.
#pragma once

#include <cstddef>

namespace qosa::ilist {

struct Link {
    Link* next = nullptr;
    Link* prev = nullptr;

    bool linked() const { return next != nullptr; }
    // Takes this record off whatever list holds it.
    void unlink() {
        prev->next = next;
        next->prev = prev;
        prev = next = nullptr;
    }
};

// ---- ring functions ----

// Makes head an empty ring.
inline void make_ring(Link* head) { head->next = head->prev = head; }
inline bool ring_empty(const Link* head) { return head->next == head; }
// Links l in front of at.
inline void link_before(Link* at, Link* l) {
    l->next = at;
    l->prev = at->prev;
    at->prev->next = l;
    at->prev = l;
}
// Takes every link off the ring of head, leaving it empty: the first of them,
// chained by next up to a NULL, or NULL when there were none.
inline Link* take_all(Link* head) {
    if (ring_empty(head)) return nullptr;
    Link* first = head->next;
    head->prev->next = nullptr;
    make_ring(head);
    return first;
}

template <typename T, Link T::*M>
class List {
  public:
    List() { clear(); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    bool empty() const { return ring_empty(&head_); }
    T* front() const { return empty() ? nullptr : of(head_.next); }
    T* back() const { return empty() ? nullptr : of(head_.prev); }
    // The record after t, or NULL at the end.
    T* next(T* t) const { return (t->*M).next == &head_ ? nullptr : of((t->*M).next); }

    void push_back(T* t) { insert_before(&head_, t); }
    void push_front(T* t) { insert_before(head_.next, t); }
    // Links t in front of at (at on this list).
    void insert_before(T* at, T* t) { insert_before(&(at->*M), t); }
    static void remove(T* t) { (t->*M).unlink(); }
    T* pop_front() {
        T* t = front();
        if (t != nullptr) remove(t);
        return t;
    }
    // Forgets every record without touching them: for a list whose records
    // went away with it.
    void clear() { make_ring(&head_); }
    class iterator {
      public:
        iterator(Link* at, const Link* end) : at_(at), end_(end) {}
        T& operator*() const { return *of(at_); }
        T* operator->() const { return of(at_); }
        // The next record is taken before the body runs, so the body may
        // unlink the record it is given.
        iterator& operator++() {
            at_ = next_;
            next_ = at_ == end_ ? nullptr : at_->next;
            return *this;
        }
        bool operator!=(const iterator& o) const { return at_ != o.at_; }

      private:
        friend class List;
        Link* at_;
        const Link* end_;
        Link* next_ = nullptr;
    };
    iterator begin() {
        iterator it(head_.next, &head_);
        it.next_ = it.at_ == &head_ ? nullptr : it.at_->next;
        return it;
    }
    iterator end() { return iterator(&head_, &head_); }

  private:
    // The record that holds l: l sits at the member's offset in T, measured
    // once on storage of T's size and alignment.
    static T* of(Link* l) {
        alignas(T) static unsigned char probe[sizeof(T)];
        const auto* t = reinterpret_cast<const T*>(probe);
        auto offset = reinterpret_cast<const unsigned char*>(&(t->*M)) - probe;
        return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(l) - offset);
    }
    static void insert_before(Link* at, T* t) { link_before(at, &(t->*M)); }

    Link head_;
};

} // namespace qosa::ilist
