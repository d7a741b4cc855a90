// Typed view of the platform's intrusive lists: T begins with its link word.
#pragma once

#include <cassert>
#include <type_traits>

#include "base/bytes.h"
#include "orputil.h"

namespace msgapi {

template <typename T>
bool list_contains(const T *head, const std::type_identity_t<T> *node) {
  const T *each = head;
  while (each != nullptr && each != node) {
    each = static_cast<const T *>(load<const void *>(each));
  }
  return each != nullptr;
}

// A record may be in one list only, and only once: a second entry would close the list to a circle.
template <typename T>
void list_append(T *&head, T *node) {
  assert(!list_contains(head, node));
  ORP_ListAppend(static_cast<void *>(&head), node);
}

// Unlinks `node`; the caller keeps its memory.
template <typename T>
void list_unlink(T *&head, T *node) {
  assert(list_contains(head, node));
  ORP_ListDeleteItemEx(static_cast<void *>(&head), node);
}

// Unlinks and frees `node`, after `release`.
template <typename T>
void list_delete(T *&head, T *node, ORP_LIST_RELEASE release = nullptr) {
  assert(list_contains(head, node));
  ORP_ListDeleteItem(static_cast<void *>(&head), node, release);
}

// For a walk over the links: unlinks the record that the link at `place` points to, and returns it.
template <typename T>
T *list_unlink_at(T **place) {
  T *node = *place;
  *place = node->link;
  node->link = nullptr;
  return node;
}

template <typename T>
void list_delete_all(T *&head, ORP_LIST_RELEASE release = nullptr) {
  ORP_ListDeleteAll(static_cast<void *>(&head), release);
}

}  // namespace msgapi
