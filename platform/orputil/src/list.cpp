// Singly linked lists whose records begin with their link word.
//
// The records' types are unknown here, so links are read and written by their bytes: the same
// code serves every record without breaking the callers' aliasing rules.

#include <cstdlib>
#include <cstring>

#include "orputil.h"

namespace {

void *load(const void *place) {
  void *link;
  std::memcpy(&link, place, sizeof link);
  return link;
}

void store(void *place, void *link) {
  std::memcpy(place, &link, sizeof link);
}

// The link that points at `node`, or null when no link of the list does.
void *find_link(void *head, const void *node) {
  for (void *place = head; place != nullptr; place = load(place)) {
    if (load(place) == node) return place;
  }
  return nullptr;
}

}  // namespace

extern "C" void ORP_ListAppend(void *head, void *node) {
  if (head == nullptr || node == nullptr) return;

  void *place = head;
  while (void *next = load(place)) place = next;
  store(node, nullptr);
  store(place, node);
}

extern "C" void ORP_ListDeleteItemEx(void *head, void *node) {
  if (head == nullptr || node == nullptr) return;

  void *place = find_link(head, node);
  if (place == nullptr) return;
  store(place, load(node));
  store(node, nullptr);
}

extern "C" void ORP_ListDeleteItem(void *head, void *node, ORP_LIST_RELEASE release) {
  if (head == nullptr || node == nullptr || find_link(head, node) == nullptr) return;

  ORP_ListDeleteItemEx(head, node);
  if (release != nullptr) release(node);
  std::free(node);
}

extern "C" void ORP_ListDeleteAll(void *head, ORP_LIST_RELEASE release) {
  if (head == nullptr) return;

  while (void *node = load(head)) {
    store(head, load(node));
    if (release != nullptr) release(node);
    std::free(node);
  }
}

extern "C" uint32_t ORP_ListGetCount(const void *first) {
  uint32_t count = 0;
  for (const void *node = first; node != nullptr; node = load(node)) ++count;
  return count;
}

extern "C" void *ORP_ListFindItem(void *first, ORP_LIST_MATCH match, const void *key) {
  if (match == nullptr) return nullptr;
  for (void *node = first; node != nullptr; node = load(node)) {
    if (match(node, key) != 0) return node;
  }
  return nullptr;
}
