// List elements are arena elements: the link to the next element, then the record's copy.
#include "agent_core/support/slm_list.h"

#include <cstdlib>
#include <cstring>

namespace slm {

struct ListElement {
  ListElement* next;
};

namespace {

constexpr size_t kElementsPerBlock = 50;
// Records keep the alignment of the arena's storage.
constexpr size_t kElementHeaderBytes = arenaAligned(sizeof(ListElement));

void* recordOf(ListElement* element) {
  return reinterpret_cast<uint8_t*>(element) + kElementHeaderBytes;
}

ListElement* elementOf(const void* record) {
  return reinterpret_cast<ListElement*>(const_cast<uint8_t*>(static_cast<const uint8_t*>(record)) -
                                        kElementHeaderBytes);
}

}  // namespace

SlmList* createList(size_t recordSize) {
  auto* list = static_cast<SlmList*>(calloc(1, sizeof(SlmList)));
  if (list == nullptr) return nullptr;
  list->arena = initArena(kElementHeaderBytes + recordSize, kElementsPerBlock);
  if (list->arena == nullptr) {
    free(list);
    return nullptr;
  }
  list->recordSize = recordSize;
  return list;
}

int append(SlmList* list, const void* record) {
  if (list == nullptr) return kListNoMemory;
  auto* element = static_cast<ListElement*>(newArenaElement(list->arena));
  if (element == nullptr) return kListNoMemory;
  memcpy(recordOf(element), record, list->recordSize);
  if (list->tail == nullptr) {
    list->head = element;
  } else {
    list->tail->next = element;
  }
  list->tail = element;
  ++list->count;
  return kListOk;
}

void* getNext(SlmList* list, const void* current) {
  if (list == nullptr || list->head == nullptr) return nullptr;
  if (current == nullptr) return recordOf(list->head);
  ListElement* next = elementOf(current)->next;
  return next == nullptr ? nullptr : recordOf(next);
}

int listRemove(SlmList* list, const void* record) {
  if (list == nullptr) return kListNotFound;
  ListElement* previous = nullptr;
  for (ListElement* element = list->head; element != nullptr; element = element->next) {
    if (memcmp(recordOf(element), record, list->recordSize) == 0) {
      if (previous == nullptr) {
        list->head = element->next;
      } else {
        previous->next = element->next;
      }
      if (list->tail == element) list->tail = previous;
      deleteArenaElement(list->arena, element);
      --list->count;
      return kListOk;
    }
    previous = element;
  }
  return kListNotFound;
}

int32_t entries(const SlmList* list) {
  return list == nullptr ? 0 : list->count;
}

void clearList(SlmList* list) {
  if (list == nullptr) return;
  cleanArenaSpace(list->arena);
  list->head = nullptr;
  list->tail = nullptr;
  list->count = 0;
}

void deleteList(SlmList* list) {
  if (list == nullptr) return;
  deleteArena(list->arena);
  free(list);
}

}  // namespace slm
