// Circular doubly linked lists through a sentinel head.
//
// A head is a node of the list's own: an empty list's head points to itself both ways. Heads are
// constant-initialised (`ListLink head{&head, &head}`), so a list is usable before any start-up
// code runs. Nodes belong to whoever made them; the functions only write links. They work on any
// record with `next` and `prev` pointers to its own type, and on records that derive from ListLink.
#pragma once

#include <type_traits>

namespace iosched_lib {

struct ListLink {
    ListLink *next;
    ListLink *prev;
};

template <class Node>
void makeEmptyList(Node *head) {
    head->next = head;
    head->prev = head;
}

template <class Node>
bool listIsEmpty(const Node *head) {
    return head->next == head;
}

template <class Node>
void linkBefore(Node *place, std::type_identity_t<Node> *node) {
    node->next = place;
    node->prev = place->prev;
    place->prev->next = node;
    place->prev = node;
}

template <class Node>
void appendToList(Node *head, std::type_identity_t<Node> *node) {
    linkBefore(head, node);
}

template <class Node>
void prependToList(Node *head, std::type_identity_t<Node> *node) {
    linkBefore(head->next, node);
}

// Takes the node out of whatever list it is in. Its own links are left as they were.
template <class Node>
void unlinkNode(Node *node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
}

// Moves every node of `from`, in order, to the empty list `to`, and leaves `from` empty.
template <class Node>
void takeWholeList(Node *from, Node *to) {
    makeEmptyList(to);
    if (listIsEmpty(from)) return;
    to->next = from->next;
    to->prev = from->prev;
    to->next->prev = to;
    to->prev->next = to;
    makeEmptyList(from);
}

}  // namespace iosched_lib

using namespace iosched_lib;
