// The list: copies of fixed-size records, kept in the order they were appended, in elements taken
// from an arena. Pointers to the copies stay valid until their element is removed. No locking: the
// owner guards each list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "agent_core/support/arena.h"

namespace slm {

struct ListElement;

struct SlmList {
  int32_t count;
  size_t recordSize;
  Arena* arena;  // the elements
  ListElement* head;
  ListElement* tail;
};

// Null when memory is short.
SlmList* createList(size_t recordSize);

constexpr int kListOk = 0;
constexpr int kListNoMemory = 2;
// Copies `recordSize` bytes of `record` to the end of the list. 0, or 2 when memory is short.
[[nodiscard]] int append(SlmList* list, const void* record);
// The list's copy of the first record when `current` is null, else of the record after `current`
// (a pointer this function gave); null at the end and for an empty list.
void* getNext(SlmList* list, const void* current);

constexpr int kListNotFound = 4;
// Removes the first record equal to `record` byte for byte. 0, or 4 when there is none.
int listRemove(SlmList* list, const void* record);
int32_t entries(const SlmList* list);
// Removes every record at once; the list keeps the memory of its first few elements only.
void clearList(SlmList* list);
void deleteList(SlmList* list);

// Owns a list: deletes it when the owner goes.
struct ListDeleter {
  void operator()(SlmList* list) const { deleteList(list); }
};
using ListHandle = std::unique_ptr<SlmList, ListDeleter>;
// A new owned list; it holds null when memory is short.
inline ListHandle makeList(size_t recordSize) {
  return ListHandle(createList(recordSize));
}

}  // namespace slm
